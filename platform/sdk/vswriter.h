// The part of the Windows SDK's <vswriter.h> that the methods of <vsbackup.h> name in their parameters.
#pragma once

#include <vss.h>

typedef enum VSS_COMPONENT_TYPE {
    VSS_CT_UNDEFINED = 0,
    VSS_CT_DATABASE = 1,
    VSS_CT_FILEGROUP = 2,
} VSS_COMPONENT_TYPE;

typedef enum VSS_FILE_RESTORE_STATUS {
    VSS_RS_UNDEFINED = 0,
    VSS_RS_NONE = 1,
    VSS_RS_ALL = 2,
    VSS_RS_FAILED = 3,
} VSS_FILE_RESTORE_STATUS;
