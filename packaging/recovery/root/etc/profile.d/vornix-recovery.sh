# What whoever starts this medium sees first. Once on each terminal; no disk is touched.
if [ "$(id -u)" = 0 ] && [ -t 1 ] && [ -z "${VORNIX_GREETED-}" ]; then
    export VORNIX_GREETED=1
    cat << 'TEXT'

Vornix recovery medium: for bringing a computer back, and for capturing one that is off.
Nothing of this computer is mounted, assembled, repaired or written unless you ask for it.

TEXT
    vornix-disks
    cat << 'TEXT'

To restore a disk:
  1. vornix-mount /dev/sdX1          the drive with the images, read-only, on /mnt/images; also //server/share,
                                     server:/path, user@server:/path
  2. vrnx list /mnt/images           what is there; vornix verify --in IMAGE proves it
  3. vornix-disks                    which number has the disk that is to be overwritten
  4. vornix restore --in IMAGE --disk N --confirm YES

To capture one: vornix-mount --write PLACE, then vornix capture --disk N --out /mnt/images/NAME.vrnx
vornix-help opens the guide. vornix-keyboard and vornix-timezone choose the layout and the zone; vornix-network asks for
an address. "poweroff" and "reboot" end it.

TEXT
fi
