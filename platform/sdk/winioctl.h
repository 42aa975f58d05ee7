// The device control codes and records of the Windows SDK's <winioctl.h> that the program uses on disks and volumes.
#pragma once

#include <windows.h>

#define FILE_DEVICE_DISK 0x00000007u
#define IOCTL_DISK_BASE FILE_DEVICE_DISK
#define IOCTL_VOLUME_BASE 0x00000056u // the letter 'V'

#define METHOD_BUFFERED 0u
#define FILE_ANY_ACCESS 0u
#define FILE_READ_ACCESS 1u
#define FILE_WRITE_ACCESS 2u

#define CTL_CODE(deviceType, function, method, access)                                                                 \
    ((static_cast<DWORD>(deviceType) << 16) | (static_cast<DWORD>(access) << 14) |                                     \
     (static_cast<DWORD>(function) << 2) | static_cast<DWORD>(method))

#define IOCTL_DISK_GET_DRIVE_GEOMETRY_EX CTL_CODE(IOCTL_DISK_BASE, 0x0028, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define IOCTL_DISK_GET_LENGTH_INFO CTL_CODE(IOCTL_DISK_BASE, 0x0017, METHOD_BUFFERED, FILE_READ_ACCESS)
#define IOCTL_DISK_UPDATE_PROPERTIES CTL_CODE(IOCTL_DISK_BASE, 0x0050, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS CTL_CODE(IOCTL_VOLUME_BASE, 0, METHOD_BUFFERED, FILE_ANY_ACCESS)

typedef enum _MEDIA_TYPE {
    Unknown = 0,
    RemovableMedia = 11,
    FixedMedia = 12,
} MEDIA_TYPE;

typedef struct _GET_LENGTH_INFORMATION {
    LARGE_INTEGER Length;
} GET_LENGTH_INFORMATION, *PGET_LENGTH_INFORMATION;

typedef struct _DISK_GEOMETRY {
    LARGE_INTEGER Cylinders;
    MEDIA_TYPE MediaType;
    DWORD TracksPerCylinder;
    DWORD SectorsPerTrack;
    DWORD BytesPerSector;
} DISK_GEOMETRY, *PDISK_GEOMETRY;

// Data stands for the partition and detection data that may follow; without them the answer is 40 bytes long.
typedef struct _DISK_GEOMETRY_EX {
    DISK_GEOMETRY Geometry;
    LARGE_INTEGER DiskSize;
    BYTE Data[1];
} DISK_GEOMETRY_EX, *PDISK_GEOMETRY_EX;

typedef struct _DISK_EXTENT {
    DWORD DiskNumber;
    LARGE_INTEGER StartingOffset;
    LARGE_INTEGER ExtentLength;
} DISK_EXTENT, *PDISK_EXTENT;

// Extents stands for as many as NumberOfDiskExtents says.
typedef struct _VOLUME_DISK_EXTENTS {
    DWORD NumberOfDiskExtents;
    DISK_EXTENT Extents[1];
} VOLUME_DISK_EXTENTS, *PVOLUME_DISK_EXTENTS;
