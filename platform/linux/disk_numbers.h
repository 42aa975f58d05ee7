// The numbers of the host's disks. A number once given means that disk until the next boot: a registry below
// /run/vornix binds numbers to what the kernel knows the disks by.
//
// The registry is a text file, /run/vornix/disks, that root alone writes, in one step and under a lock, and that
// everybody can read:
//
//     vornix disk numbers 1
//     boot f52ad691-898f-40f5-b253-4fcab2bd48fc
//     disk 0 0 254:0,seq=9
//     disk 1 2 7:0,seq=12
//     end 2
//
// A line of a disk has its number, 0 where the disk is there or else a place in the order in which disks were found
// gone, and its identity. The last line counts them. A registry of another boot is none.
#pragma once

#include <string>
#include <vector>

#include "host_disks.h"

namespace vornix::platform {

// The numbers that list-disks shows. Those whose disks are gone are given again once none of them is free.
constexpr int firstNumbers = 16;
// No number is as high as this.
constexpr int endOfNumbers = 1024;

struct NumberedDisks {
    std::vector<HostDisk> Disks;  // in the order of their numbers
    std::vector<int> GoneNumbers; // of disks that were seen in this boot and are gone
    // Why no number can be bound here: numbers that are not bound already are ranks. Empty where root looks and all is
    // well, and where everything is bound already.
    std::string WhyRanks;
    // What was wrong with a registry of this boot that could not be believed; its numbers mean nothing any more. Empty
    // where nothing was.
    std::string Damage;
};

// Finds the disks, gives numbers to those that have none, and, as root, brings them into the registry. Two that look at
// once get the same numbers.
NumberedDisks NumberDisks(const HostRoots& roots);

// The registry's path, for messages.
std::string RegistryPath(const HostRoots& roots);

} // namespace vornix::platform
