#pragma once

// Names, words, limits and bit values shared by every handler. Text constants keep the exact
// spelling and blanks the CCI tools and the rest of the product expect.

// Command names; those that take arguments end in a blank so the arguments follow directly.
inline constexpr const char* VT_HDS_CCI_PAIR_CREATE_CMD = "paircreate ";
inline constexpr const char* VT_HDS_CCI_PAIR_DISPLAY_CMD = "pairdisplay ";
inline constexpr const char* VT_HDS_CCI_PAIR_EVT_WAIT_CMD = "pairevtwait ";
inline constexpr const char* VT_HDS_CCI_PAIR_RESYNC_CMD = "pairresync ";
inline constexpr const char* VT_HDS_CCI_PAIR_SPLIT_CMD = "pairsplit ";
inline constexpr const char* VT_HDS_CCI_PAIR_SYNC_WAIT_CMD = "pairsyncwait ";
inline constexpr const char* VT_HDS_RAIDCOM_CMD_NAME = "raidcom ";
inline constexpr const char* VT_HDS_RAIDQRY_CMD_NAME = "raidqry ";
inline constexpr const char* VT_HDS_RAIDSCAN_CMD_NAME = "raidscan ";
inline constexpr const char* VT_HDS_HORCMSTART_CMD_NAME = "horcmstart.sh";
inline constexpr const char* VT_HDS_HORCMSHUTDOWN_CMD_NAME = "horcmshutdown.sh";

// Snapshot-group verbs of raidcom, blank on both sides.
inline constexpr const char* VT_HDS_SNAP_OP_CREATE = " create ";
inline constexpr const char* VT_HDS_SNAP_OP_SPLIT = " split ";
inline constexpr const char* VT_HDS_SNAP_OP_RESYNC = " resync ";
inline constexpr const char* VT_HDS_SNAP_OP_RESTORE = " restore ";
inline constexpr const char* VT_HDS_SNAP_OP_CLONE = " clone ";
inline constexpr int VT_HDS_BASIC_SNAP_CREATION = 0;
inline constexpr int VT_HDS_MULTILEVEL_SNAP_CREATION = 1;

// Pair status words as pairdisplay and raidcom print them.
inline constexpr const char* VT_HDS_PAIR_STATUS_SIMPLE = "SMPL";
inline constexpr const char* VT_HDS_PAIR_STATUS_COPY = "COPY";
inline constexpr const char* VT_HDS_PAIR_STATUS_PAIR = "PAIR";
inline constexpr const char* VT_HDS_PAIR_STATUS_P_SUSPEND = "PSUS";
inline constexpr const char* VT_HDS_PAIR_STATUS_S_SUSPEND = "SSUS";
inline constexpr const char* VT_HDS_PAIR_STATUS_ERROR = "PSUE";
inline constexpr const char* VT_HDS_PAIR_STATUS_P_FULL = "PFUL";
inline constexpr const char* VT_HDS_PAIR_STATUS_S_FULL = "SFUL";
inline constexpr const char* VT_HDS_PAIR_STATUS_P_THRESHOLD = "PFUS";
inline constexpr const char* VT_HDS_PAIR_STATUS_S_THRESHOLD = "SFUS";
inline constexpr const char* VT_HDS_PAIR_STATUS_RCOPY = "RCPY";
inline constexpr const char* VT_HDS_POOL_STATUS_NORMAL = "POLN";

inline constexpr const char* VT_HDS_PAIR_FENCE_ASYNC = "ASYNC";
inline constexpr const char* VT_HDS_PAIR_FENCE_DATA = "DATA";
inline constexpr const char* VT_HDS_PAIR_FENCE_NEVER = "NEVER";

// Volume roles and markers.
inline constexpr const char* VT_HDS_LDEV_PVOL = "P-VOL";
inline constexpr const char* VT_HDS_LDEV_SVOL = "S-VOL";
inline constexpr const char* VT_HDS_LDEV_VVOL = "V-VOL";
inline constexpr const char* VT_HDS_PAIR_LDEV_CREATED = "NEWDEV";
inline constexpr const char* VT_HDS_PAIR_SEPARATOR = "->";
inline constexpr const char* VT_HDS_BLANK_LDEV_LABEL = "BLANK";
inline constexpr const char* VT_HDS_CASCADE_CLONE_LABEL = "CASCADE";
inline constexpr const char* VT_HDS_NEW_LINE = "\n";

// Names given to objects created on the array; "KS_" marks every one of them.
inline constexpr const char* VT_HDS_REPLICATION_NAME_PREFIX = "KS_";
inline constexpr const char* VT_HDS_LDEV_LABEL_PREFIX = "KS_SVOL_";
inline constexpr const char* VT_HDS_MOUNT_CLONE_LABEL = "KS_CLONE_";
inline constexpr const char* VT_HDS_MOUNT_CLONE_RG_PREFIX = "KS_C_";
inline constexpr const char* VT_HDS_MOUNT_SNAP_RG_PREFIX = "KS_S_";
inline constexpr const char* VT_HDS_PVOL_DEVICE_GRP_PREFIX = "KS_DEV_P_";
inline constexpr const char* VT_HDS_SVOL_DEVICE_GRP_PREFIX = "KS_DEV_S_";
inline constexpr const char* VT_HDS_PRE_SNAP_HOSTGROUP = "KS_PRE_SNAP_HOST_GROUP";
inline constexpr const char* VT_HDS_PRE_SNAP_HOSTGROUP_VSM = "KS_PSHG_";
inline constexpr const char* VT_HDS_PAIR_DEV_NAME_PREFIX = "Pair_";
inline constexpr const char* VT_HDS_REPLICATION_REUSE = "_DEL_REUSE";
inline constexpr const char* VT_HDS_META_RESOURCE_NAME = "meta_resource";

// Array identification; HP and HPE sell the same arrays under their own vendor names.
inline constexpr const char* VT_HDS_VENDOR_NAME = "HITACHI";
inline constexpr const char* VT_HPE_OEM_VENDOR_NAME_HP = "HP";
inline constexpr const char* VT_HPE_OEM_VENDOR_NAME_HPE = "HPE";
inline constexpr const char* VT_HDS_PRODUCT_ID = "OPEN-V";
inline constexpr const char* VT_HDS_CMD_DEV_PRODUCT_ID = "OPEN-V-CM";
inline constexpr const char* VT_HDS_DUMMY_WWN = "1000000000000001";

// Paths and HORCM instances. VT_HDS_DEFAULT_HORCM_PATH is the production directory of the
// horcmN.conf files; the directory actually used comes from VTPI_Base::getHorcmDirectory().
inline constexpr const char* VT_HDS_DEFAULT_CCI_PATH = "/HORCM/usr/bin/";
inline constexpr const char* VT_HDS_DEFAULT_HORCM_PATH = "/etc/";
inline constexpr const char* VT_HDS_DUMMY_HORCM_INST_NUMBER = "-1";
inline constexpr int VT_HDS_HORCM_INSTANCE_START = 3300;
inline constexpr int VT_HDS_HORCM_INSTANCE_END = 3500;
// The raidcom handler searches its single instances downward from START to END.
inline constexpr int VT_HDS_RAIDCOM_HORCM_INST_START = 3532;
inline constexpr int VT_HDS_RAIDCOM_HORCM_INST_END = 3500;
inline constexpr int VT_HDS_RAIDCOM_TIMEOUT_IN_SEC = 30;
inline constexpr int VT_HDS_RAIDCOM_RETRY_COUNT = 50;

// CCI error texts, exit codes and the outcome codes handlers report for them.
inline constexpr const char* VT_HDS_CCI_ERROR_STR_LU_BUSY = "LU is executing host I/O";
inline constexpr const char* VT_HDS_CCI_ERROR_STR_LAST_PATH = "It is the last path of Snapshot";
// Exit codes: the session expired (ENAUTH), no such object (ENOOBJ), no such LDEV (ENLDEV), a
// wait ran out (EWSTOT), no such device (ENODEV).
inline constexpr int VT_HDS_CCI_ERROR_EX_ENAUTH = 202;
inline constexpr int VT_HDS_CCI_ERROR_EX_ENOOBJ = 205;
inline constexpr int VT_HDS_CCI_ERROR_EX_ENLDEV = 227;
inline constexpr int VT_HDS_CCI_ERROR_EX_EWSTOT = 233;
inline constexpr int VT_HDS_CCI_ERROR_EX_EWSUSE = 234;
inline constexpr int VT_HDS_CCI_ERROR_EX_ENODEV = 246;
// Outcome codes: busy and last path come back as the error code of a failed unmap.
inline constexpr int VT_HDS_CCI_HORCM_ALREADY_RUNNING = 1;
inline constexpr int VT_HDS_CCI_SVOL_BUSY = 2;
inline constexpr int VT_HDS_CCI_LAST_PATH_FOR_SNAP = 3;
inline constexpr int VT_HDS_CCI_REMOTE_MA_EXECUTE_FAILED = 4;

// Error codes a handler reports through getErrorCodeAndString: input refused or missing, a tool
// or file step failed, the login failed.
inline constexpr int VT_HDS_ERROR_MISSING_INPUT = 62600;
inline constexpr int VT_HDS_ERROR_COMMAND_FAILED = 62601;
inline constexpr int VT_HDS_ERROR_LOGIN_FAILED = 62602;

// Module tag of every log line: HDS and two blanks.
inline constexpr const char* VT_HDS_LOG_MODULE = "HDS  ";

// Limits.
inline constexpr int VT_HDS_MAX_LDEV_LABEL_NAME = 32;
inline constexpr int VT_HDS_MAX_DEVICE_GROUP_NAME = 32;
inline constexpr int VT_HDS_MAX_SNAPSHOT_GROUP_NAME = 32;
inline constexpr int VT_HDS_MAX_HOSTGROUP_LENGTH = 32;
inline constexpr int VT_HDS_MAX_SNAPSHOTGROUP_LENGTH = 32;
inline constexpr int VT_HDS_MAX_PORTNAME_LENGTH = 16;
inline constexpr int VT_HDS_MAX_PAIRS_IN_SHAPSHOTGROUP = 1024;
inline constexpr int VT_HDS_MAX_LUNS_IN_HOSTGROUP = 2048;
inline constexpr int VT_HDS_MAX_LDEV_TABLE_SIZE = 17;
inline constexpr int COMMAND_MAX_PASSWORDLEN = 2048;
inline constexpr int VT_HDS_COMMAND_TIMEOUT_DEFAULT = 300;
inline constexpr int VT_HDS_COMMAND_TIMEOUT_MIN = 30;
inline constexpr int VT_HDS_DEFAULT_LOCK_TIME_OUT = 5;
inline constexpr int VT_HDS_MAX_LOCK_RETRY_COUNT = 50;

// Highest LDEV id by model family.
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_VSP = 65279;
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_VSP_G5000 = 65279;
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_VSP_G900 = 65279;
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_VSP_G700 = 49151;
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_VSP_G370 = 32767;
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_VSP_G350 = 16383;
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_VSP_G800 = 16383;
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_HUS_VM = 16383;
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_VSP_G400 = 4095;
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_VSP_G600 = 4095;
inline constexpr int VT_HDS_MAX_LDEV_ID_NUMBER_VSP_G200 = 2047;

// LDEV filter bits, combined with OR to select LDEVs in LDEV queries.
inline constexpr int VT_HDS_LDEV_FILTER_NO_FILTER = 0;
inline constexpr int VT_HDS_LDEV_FILTER_UNDEFINED = 1;
inline constexpr int VT_HDS_LDEV_FILTER_UNMAPPED = 2;
inline constexpr int VT_HDS_LDEV_FILTER_MAPPED = 4;
inline constexpr int VT_HDS_LDEV_FILTER_POOLID = 8;
inline constexpr int VT_HDS_LDEV_FILTER_LABEL = 16;
inline constexpr int VT_HDS_LDEV_FILTER_CU = 32;
inline constexpr int VT_HDS_LDEV_FILTER_DEFINED = 64;
inline constexpr int VT_HDS_LDEV_FILTER_QUORUM = 128;
inline constexpr int VT_HDS_LDEV_FILTER_RES_GRP = 256;

// Volume attribute bits: the attributes raidcom prints for an LDEV, as a bit set.
inline constexpr int VT_HDS_VOL_NOT_FOUND = 0;
inline constexpr int VT_HDS_VOL_NOT_DEFINED = 1;
inline constexpr int VT_HDS_VOL_CMD_DEV = 2;
inline constexpr int VT_HDS_VOL_CVS = 4;
inline constexpr int VT_HDS_VOL_LUSE = 8;
inline constexpr int VT_HDS_VOL_ALUN = 16;
inline constexpr int VT_HDS_VOL_EXTN = 32;
inline constexpr int VT_HDS_VOL_VVOL = 64;
inline constexpr int VT_HDS_VOL_QS = 128;
inline constexpr int VT_HDS_VOL_HDP = 256;
inline constexpr int VT_HDS_VOL_POOL = 512;
inline constexpr int VT_HDS_VOL_REMOTE = 1024;
inline constexpr int VT_HDS_VOL_MRCF = 2048;
inline constexpr int VT_HDS_VOL_ENCD = 4096;
inline constexpr int VT_HDS_VOL_SYSD = 8192;
inline constexpr int VT_HDS_VOL_TSE = 16384;
inline constexpr int VT_HDS_VOL_HDT = 32768;
inline constexpr int VT_HDS_VOL_OLG = 65536;
inline constexpr int VT_HDS_VOL_QRD = 131072;
inline constexpr int VT_HDS_VOL_JNL = 262144;
inline constexpr int VT_HDS_VOL_CLUN = 524288;
inline constexpr int VT_HDS_VOL_GAD = 1048576;

// Sections of the client settings store: the agent's section, and the same name with a "~" in
// front for the settings an administrator adds by hand.
inline constexpr const char* VT_HDS_REG_SECTION = "iHarbor";
inline constexpr const char* VT_HDS_REG_SECTION_LOCAL = "~iHarbor";

// Client setting keys and named locks.
inline constexpr const char* VT_HDS_RAIDCOM_TIMEOUT_REGKEY = "sVTHDSRaidcomTimeoutInSecs";
inline constexpr const char* VT_HDS_RAIDCOM_RETRY_REGKEY = "sVTHDSRaidcomMaxRetryCount";
inline constexpr const char* VT_HDS_RAIDCOM_LOCK_COUNT = "sVTHDSRaidcomLockCount";
inline constexpr const char* VT_HDS_RAIDCOM_DELAYED_LOGOUT =
    "nVTHDSEnableDelayedLogoutForSnapCreate";
inline constexpr const char* VT_HDS_RAIDCOM_MP_BLADE_DISABLE = "nVTHDSDontUseMPBladeId";
inline constexpr const char* VT_HDS_RAIDCOM_LOGIN_LOCK = "RAIDCOM_LOGIN_LOCK";
inline constexpr const char* VT_HDS_HORCM_FILE_COUNT_LOCK = "VT_HDS_HORCM_FILE_COUNT_LOCK";
