// What an open asks for, and the classes of file and volume information.
#pragma once

#include "base.h"
#include "dirinfo.h"
#include "fileinfo.h"

// Access to files and directories
#define FILE_READ_DATA        0x0001u
#define FILE_LIST_DIRECTORY   0x0001u
#define FILE_WRITE_DATA       0x0002u
#define FILE_ADD_FILE         0x0002u
#define FILE_APPEND_DATA      0x0004u
#define FILE_ADD_SUBDIRECTORY 0x0004u
#define FILE_READ_EA          0x0008u
#define FILE_WRITE_EA         0x0010u
#define FILE_EXECUTE          0x0020u
#define FILE_TRAVERSE         0x0020u
#define FILE_DELETE_CHILD     0x0040u
#define FILE_READ_ATTRIBUTES  0x0080u
#define FILE_WRITE_ATTRIBUTES 0x0100u
#define FILE_READ_ACCESS      FILE_READ_DATA
#define FILE_WRITE_ACCESS     FILE_WRITE_DATA
#define FILE_ALL_ACCESS       (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1ffu)
#define FILE_GENERIC_READ     (STANDARD_RIGHTS_READ | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE)
#define FILE_GENERIC_WRITE \
    (STANDARD_RIGHTS_WRITE | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | FILE_APPEND_DATA | SYNCHRONIZE)
#define FILE_GENERIC_EXECUTE (STANDARD_RIGHTS_EXECUTE | FILE_READ_ATTRIBUTES | FILE_EXECUTE | SYNCHRONIZE)

#define FILE_SHARE_READ        0x1u
#define FILE_SHARE_WRITE       0x2u
#define FILE_SHARE_DELETE      0x4u
#define FILE_SHARE_VALID_FLAGS 0x7u

#define FILE_ATTRIBUTE_READONLY      0x00000001u
#define FILE_ATTRIBUTE_HIDDEN        0x00000002u
#define FILE_ATTRIBUTE_SYSTEM        0x00000004u
#define FILE_ATTRIBUTE_DIRECTORY     0x00000010u
#define FILE_ATTRIBUTE_ARCHIVE       0x00000020u
#define FILE_ATTRIBUTE_NORMAL        0x00000080u
#define FILE_ATTRIBUTE_TEMPORARY     0x00000100u
#define FILE_ATTRIBUTE_REPARSE_POINT 0x00000400u
#define FILE_ATTRIBUTE_VALID_FLAGS   0x0000ffb7u

// Dispositions, and what an open reports in Information
#define FILE_SUPERSEDE           0u
#define FILE_OPEN                1u
#define FILE_CREATE              2u
#define FILE_OPEN_IF             3u
#define FILE_OVERWRITE           4u
#define FILE_OVERWRITE_IF        5u
#define FILE_MAXIMUM_DISPOSITION 5u
#define FILE_SUPERSEDED          0
#define FILE_OPENED              1
#define FILE_CREATED             2
#define FILE_OVERWRITTEN         3
#define FILE_EXISTS              4
#define FILE_DOES_NOT_EXIST      5
// What comes in Information with STATUS_REPARSE: start over with the name that the file object has now.
#define IO_REPARSE 0

#define FILE_DIRECTORY_FILE            0x00000001u
#define FILE_WRITE_THROUGH             0x00000002u
#define FILE_SEQUENTIAL_ONLY           0x00000004u
#define FILE_NO_INTERMEDIATE_BUFFERING 0x00000008u
#define FILE_SYNCHRONOUS_IO_ALERT      0x00000010u
#define FILE_SYNCHRONOUS_IO_NONALERT   0x00000020u
#define FILE_NON_DIRECTORY_FILE        0x00000040u
#define FILE_CREATE_TREE_CONNECTION    0x00000080u
#define FILE_COMPLETE_IF_OPLOCKED      0x00000100u
#define FILE_NO_EA_KNOWLEDGE           0x00000200u
#define FILE_RANDOM_ACCESS             0x00000800u
#define FILE_DELETE_ON_CLOSE           0x00001000u
#define FILE_OPEN_BY_FILE_ID           0x00002000u
#define FILE_OPEN_FOR_BACKUP_INTENT    0x00004000u
#define FILE_NO_COMPRESSION            0x00008000u
#define FILE_RESERVE_OPFILTER          0x00100000u
#define FILE_OPEN_REPARSE_POINT        0x00200000u
#define FILE_OPEN_NO_RECALL            0x00400000u
#define FILE_OPEN_FOR_FREE_SPACE_QUERY 0x00800000u
#define FILE_VALID_OPTION_FLAGS        0x00ffffffu

typedef enum _FILE_INFORMATION_CLASS {
    FileDirectoryInformation = 1,
    FileFullDirectoryInformation,
    FileBothDirectoryInformation,
    FileBasicInformation,
    FileStandardInformation,
    FileInternalInformation,
    FileEaInformation,
    FileAccessInformation,
    FileNameInformation,
    FileRenameInformation,
    FileLinkInformation,
    FileNamesInformation,
    FileDispositionInformation,
    FilePositionInformation,
    FileFullEaInformation,
    FileModeInformation,
    FileAlignmentInformation,
    FileAllInformation,
    FileAllocationInformation,
    FileEndOfFileInformation,
    FileAlternateNameInformation,
    FileStreamInformation,
    FilePipeInformation,
    FilePipeLocalInformation,
    FilePipeRemoteInformation,
    FileMailslotQueryInformation,
    FileMailslotSetInformation,
    FileCompressionInformation,
    FileObjectIdInformation,
    FileCompletionInformation,
    FileMoveClusterInformation,
    FileQuotaInformation,
    FileReparsePointInformation,
    FileNetworkOpenInformation,
    FileAttributeTagInformation,
    FileTrackingInformation,
    FileIdBothDirectoryInformation,
    FileIdFullDirectoryInformation,
    FileValidDataLengthInformation,
    FileShortNameInformation,
    FileIoCompletionNotificationInformation
} FILE_INFORMATION_CLASS,
    *PFILE_INFORMATION_CLASS;

typedef enum _FSINFOCLASS {
    FileFsVolumeInformation = 1,
    FileFsLabelInformation,
    FileFsSizeInformation,
    FileFsDeviceInformation,
    FileFsAttributeInformation,
    FileFsControlInformation,
    FileFsFullSizeInformation,
    FileFsObjectIdInformation,
    FileFsDriverPathInformation
} FS_INFORMATION_CLASS,
    *PFS_INFORMATION_CLASS;
