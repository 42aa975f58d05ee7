"""A computer that shares a folder with another one at the other end of a cable: by SMB, NFS and SSH, after it has given
it an address. What serves are Debian's own packages, in a tree on the computer's disk.
"""

import os
import shutil
import subprocess
import tempfile

import kernel
from computer import Computer
from disks import MIB, Disk

PACKAGES = "samba,nfs-kernel-server,openssh-server"
SIZE = 700 * MIB
ADDRESS = "10.0.0.1"
FOLDER = "/srv/images"
USER, PASSWORD = "admin", "pass word"

SMB = f"""[global]
server role = standalone
load printers = no
disable spoolss = yes
log level = 0
[images]
path = {FOLDER}
read only = no
"""
LEASES = """start 10.0.0.10
end 10.0.0.20
interface eth0
option subnet 255.255.255.0
lease_file /run/leases
pidfile /run/udhcpd.pid
"""
START = f"""
mount -t ext4 /dev/vda /mnt
for place in proc sys dev; do mount --bind /$place /mnt/$place; done
mount -t tmpfs none /mnt/run
ip address add {ADDRESS}/24 dev eth0
ip link set eth0 up
touch /run/leases
udhcpd -S /etc/udhcpd.conf
cat > /mnt/etc/samba/smb.conf < /etc/smb.conf
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
chroot /mnt sh -ec '
    useradd --create-home {USER}
    echo "{USER}:{PASSWORD}" | chpasswd
    mkdir -p {FOLDER} /run/sshd /run/samba
    chown {USER} {FOLDER}
    printf "%s\\n%s\\n" "{PASSWORD}" "{PASSWORD}" | smbpasswd -s -a {USER}
    smbd --daemon
    /usr/sbin/sshd
    mount -t nfsd nfsd /proc/fs/nfsd
    mkdir -p /run/rpc_pipefs
    echo "{FOLDER} 10.0.0.0/24(rw,no_root_squash,no_subtree_check,insecure)" > /etc/exports
    rpcbind
    rpc.statd --no-notify
    exportfs -a
    rpc.nfsd 2
    rpc.mountd
'
"""


def tree():
    """The disk of the server, made for the first that asks. Raises Missing."""
    path = os.path.join(kernel.STORE, "share-server.img")
    with kernel.locked("share-server"):
        if os.path.exists(path):
            return path
        for tool in ("mmdebstrap", "mke2fs"):
            if shutil.which(tool) is None:
                raise kernel.Missing(f"there is no {tool} here")
        with tempfile.TemporaryDirectory(dir=kernel.STORE) as work:
            made = subprocess.run(["mmdebstrap", "--mode=root", "--variant=minbase", f"--include={PACKAGES}",
                                   "--aptopt=Apt::Install-Recommends \"false\"", "bookworm", f"{work}/tree"],
                                  capture_output=True, text=True, check=False, stdin=subprocess.DEVNULL)
            if made.returncode != 0:
                raise kernel.Missing(f"no server can be made: {made.stderr.strip().splitlines()[-1]}")
            subprocess.run(["mke2fs", "-q", "-t", "ext4", "-d", f"{work}/tree", f"{work}/img", f"{SIZE // MIB}M"],
                           check=True)
            os.rename(f"{work}/img", path)
    return path


class ShareServer(Computer):
    """The server; it listens at the cable, a path of this system, before the other computer is plugged in there."""

    def __init__(self, folder, cable):
        disk = Disk(SIZE)
        disk.file = os.path.join(folder, "tree.img")
        subprocess.run(["cp", "--sparse=always", "--reflink=auto", tree(), disk.file], check=True)
        super().__init__(folder, [disk], kernel=kernel.CLOUD, modules=["virtio_net", "ext4", "nfsd", "af_packet"],
                         files={"/etc/udhcpd.conf": LEASES.encode(), "/etc/smb.conf": SMB.encode()}, memory=512)
        self.cable = cable

    def _channels(self, channel, qmp):
        # Behind the channel, which would have another name else.
        return [*super()._channels(channel, qmp),
                "-netdev", f"stream,id=cable,server=on,addr.type=unix,addr.path={self.cable}",
                "-device", "virtio-net-pci,netdev=cable,mac=52:54:00:00:00:01"]

    def start(self):
        super().start()
        self.settle()
        self.succeed(f"exec 2>&1; set -e; {START}")
        return self


def plug(cable):
    """The arguments of the computer at the other end."""
    return ["-netdev", f"stream,id=cable,server=off,addr.type=unix,addr.path={cable}", "-device", "e1000,netdev=cable"]
