#!/bin/sh
# The first process of a computer: prepares the system, then runs the commands that come over the channel, one by one.
#
# A command is a line in base64. The answer is a line "STATUS LENGTH LENGTH" and behind it standard output and standard
# error, of these lengths. A command that begins with "!" is the agent's own, so that it can become another process.
# When the other side is gone, so is the computer.
export PATH=/bin HOME=/root TERM=dumb
export DM_DISABLE_UDEV=1 # nobody else makes the nodes of composed devices
if [ "$1" != --again ]; then
    # Programs that are there already go before busybox' own of their names.
    for name in $(/bin/busybox --list); do
        [ -e "/bin/$name" ] || /bin/busybox ln -s busybox "/bin/$name"
    done
    mount -t proc proc /proc
    mount -t sysfs sys /sys
    mount -t devtmpfs dev /dev
    mkdir -p /dev/shm /dev/pts
    mount -t devpts pts /dev/pts
    mount -t tmpfs run /run
    mount -t tmpfs tmp /tmp
    [ ! -e /modules ] || while read -r module; do
        insmod "$module" || echo "agent: $module does not load"
    done < /modules
    ip link set lo up 2> /dev/null
    if grep -q shell=yes /proc/cmdline; then
        echo "A shell in the computer; poweroff -f ends it."
        setsid cttyhack sh
        poweroff -f
    fi
    for _ in $(seq 200); do
        [ -e /dev/vport0p1 ] && break
        sleep 0.1
    done
    exec 3<> /dev/vport0p1
    echo ready >&3
fi
while read -r line <&3; do
    echo "$line" | base64 -d > /run/command
    if [ "$(head -c 1 /run/command)" = '!' ]; then
        echo '0 0 0' >&3
        tail -c +2 /run/command > /run/own
        . /run/own
        continue
    fi
    sh /run/command > /run/stdout 2> /run/stderr < /dev/null 3>&-
    status=$?
    echo "$status $(stat -c %s /run/stdout) $(stat -c %s /run/stderr)" >&3
    cat /run/stdout /run/stderr >&3
done
poweroff -f
