#!/bin/sh
# Finds the medium by its label and its file system, and mounts nothing else on the way. The search that this takes the
# place of mounts every file system of the computer in turn, which replays the journal of each that was not shut down.

find_livefs ()
{
    device=$(readlink -f /dev/disk/by-label/VORNIX_RECOVERY) || return 1
    [ -b "${device}" ] && [ "$(get_fstype "${device}")" = "iso9660" ] || return 1
    check_dev "null" "${device}"
}
