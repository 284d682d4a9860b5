/* The trace records as one table: id, name, fields. Readers of dumps and tests walk it, so that no
 * offset stands in a second place. */
#ifndef QVCL_TRACE_TABLE_H
#define QVCL_TRACE_TABLE_H

#include <qvcl/trace_records.h>

/* How a field is to be shown. */
typedef enum CL_TrcType {
    CL_TRC_UNSIGNED,
    CL_TRC_SIGNED,
    CL_TRC_HEX,
    CL_TRC_OCTAL,   /* permission bits */
    CL_TRC_HANDLE,  /* address of a descriptor object */
    CL_TRC_ADDRESS, /* any other address */
    CL_TRC_KIND,
    CL_TRC_MODE, /* CL_MODE_..., CL_TIMER_... */
    CL_TRC_EVENT,
    CL_TRC_STATUS,     /* status bits */
    CL_TRC_SUB_STATUS, /* sub-status bits */
    CL_TRC_TEXT,       /* to the end of the record, NUL-terminated before */
    CL_TRC_BYTES,
    CL_TRC_SETS,
    CL_TRC_ERROR
} CL_TrcType;

typedef struct CL_TrcField {
    const char *name;
    CL_TrcType type;
    uint16_t offset;
    uint16_t size; /* bytes */
} CL_TrcField;

enum { CL_TRC_MAX_FIELDS = 11 };

typedef struct CL_TrcOperation {
    const char *name;
    uint8_t api;
    uint16_t length;    /* of the exit record; for records with a path: offset of the path */
    CL_TrcField result; /* name null: none */
    CL_TrcField fields[CL_TRC_MAX_FIELDS]; /* in order of arguments, up to a null name */
} CL_TrcOperation;

#ifdef __cplusplus
#define CL_TRC_SIZE(record, member) sizeof(record::member)
#else
#define CL_TRC_SIZE(record, member) sizeof(((record *)0)->member)
#endif
#define CL_TRC_FIELD(record, member, type) \
    { #member, type, offsetof(record, member), CL_TRC_SIZE(record, member) }
#define CL_TRC_COMMON(record) \
    CL_TRC_FIELD(record, err_address, CL_TRC_ADDRESS), CL_TRC_FIELD(record, error, CL_TRC_ERROR)
#define CL_TRC_HANDLE_OPERATION(api, name, type)                                           \
    {                                                                                      \
        name, api, sizeof(CL_TrcHandle), CL_TRC_FIELD(CL_TrcHandle, result, type), {       \
            CL_TRC_FIELD(CL_TrcHandle, handle, CL_TRC_HANDLE), CL_TRC_COMMON(CL_TrcHandle) \
        }                                                                                  \
    }

__attribute__((unused)) static const CL_TrcOperation CL_TRC_OPERATIONS[] = {
    {"CL_Init_M",
     CL_API_INIT,
     offsetof(CL_TrcInit, path),
     CL_TRC_FIELD(CL_TrcInit, result, CL_TRC_UNSIGNED),
     {CL_TRC_FIELD(CL_TrcInit, count, CL_TRC_UNSIGNED), CL_TRC_FIELD(CL_TrcInit, path, CL_TRC_TEXT),
      CL_TRC_COMMON(CL_TrcInit)}},
    {"CL_EventLoop_M",
     CL_API_LOOP,
     sizeof(CL_TrcProcess),
     CL_TRC_FIELD(CL_TrcProcess, result, CL_TRC_UNSIGNED),
     {CL_TRC_COMMON(CL_TrcProcess)}},
    {"CL_End_M",
     CL_API_END,
     sizeof(CL_TrcProcess),
     CL_TRC_FIELD(CL_TrcProcess, result, CL_TRC_UNSIGNED),
     {CL_TRC_COMMON(CL_TrcProcess)}},
    {"CL_CreateFD_M",
     CL_API_CREATE_FD,
     sizeof(CL_TrcCreate),
     CL_TRC_FIELD(CL_TrcCreate, result, CL_TRC_HANDLE),
     {CL_TRC_FIELD(CL_TrcCreate, kind, CL_TRC_KIND),
      CL_TRC_FIELD(CL_TrcCreate, callback, CL_TRC_ADDRESS),
      CL_TRC_FIELD(CL_TrcCreate, arg1, CL_TRC_HEX), CL_TRC_FIELD(CL_TrcCreate, arg2, CL_TRC_HEX),
      CL_TRC_COMMON(CL_TrcCreate)}},
    {"CL_AddEventList_M",
     CL_API_ADD_LIST,
     sizeof(CL_TrcAddList),
     CL_TRC_FIELD(CL_TrcAddList, result, CL_TRC_UNSIGNED),
     {CL_TRC_FIELD(CL_TrcAddList, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcAddList, priority, CL_TRC_UNSIGNED), CL_TRC_COMMON(CL_TrcAddList)}},
    CL_TRC_HANDLE_OPERATION(CL_API_DELETE_FD, "CL_DeleteFD_M", CL_TRC_UNSIGNED),
    CL_TRC_HANDLE_OPERATION(CL_API_DEL_LIST, "CL_DelEventList_M", CL_TRC_UNSIGNED),
    {"CL_OpenMSGS_M",
     CL_API_OPEN_MSGS,
     offsetof(CL_TrcOpenServer, path),
     CL_TRC_FIELD(CL_TrcOpenServer, result, CL_TRC_UNSIGNED),
     {CL_TRC_FIELD(CL_TrcOpenServer, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcOpenServer, path, CL_TRC_TEXT),
      CL_TRC_FIELD(CL_TrcOpenServer, backlog, CL_TRC_UNSIGNED), CL_TRC_COMMON(CL_TrcOpenServer)}},
    {"CL_AcceptMSGS_M",
     CL_API_ACCEPT_MSGS,
     sizeof(CL_TrcAccept),
     CL_TRC_FIELD(CL_TrcAccept, result, CL_TRC_HANDLE),
     {CL_TRC_FIELD(CL_TrcAccept, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcAccept, callback, CL_TRC_ADDRESS),
      CL_TRC_FIELD(CL_TrcAccept, arg1, CL_TRC_HEX), CL_TRC_FIELD(CL_TrcAccept, arg2, CL_TRC_HEX),
      CL_TRC_COMMON(CL_TrcAccept)}},
    CL_TRC_HANDLE_OPERATION(CL_API_CLOSE_MSGS, "CL_CloseMSGS_M", CL_TRC_UNSIGNED),
    {"CL_CnctMSGC_M",
     CL_API_CNCT_MSGC,
     offsetof(CL_TrcConnect, path),
     CL_TRC_FIELD(CL_TrcConnect, result, CL_TRC_UNSIGNED),
     {CL_TRC_FIELD(CL_TrcConnect, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcConnect, path, CL_TRC_TEXT),
      CL_TRC_FIELD(CL_TrcConnect, mode, CL_TRC_MODE),
      CL_TRC_FIELD(CL_TrcConnect, reserved, CL_TRC_UNSIGNED), CL_TRC_COMMON(CL_TrcConnect)}},
    {"CL_RecvMSGC_M",
     CL_API_RECV_MSGC,
     sizeof(CL_TrcReceive),
     {"result", CL_TRC_SIGNED, offsetof(CL_TrcReceive, result), 4},
     {CL_TRC_FIELD(CL_TrcReceive, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcReceive, buffer, CL_TRC_ADDRESS),
      CL_TRC_FIELD(CL_TrcReceive, capacity, CL_TRC_SIGNED),
      CL_TRC_FIELD(CL_TrcReceive, mode, CL_TRC_MODE),
      CL_TRC_FIELD(CL_TrcReceive, timeout, CL_TRC_UNSIGNED),
      CL_TRC_FIELD(CL_TrcReceive, data, CL_TRC_BYTES), CL_TRC_COMMON(CL_TrcReceive)}},
    {"CL_SendMSGC_M",
     CL_API_SEND_MSGC,
     sizeof(CL_TrcSend),
     {"result", CL_TRC_SIGNED, offsetof(CL_TrcSend, result), 4},
     {CL_TRC_FIELD(CL_TrcSend, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcSend, block, CL_TRC_ADDRESS),
      CL_TRC_FIELD(CL_TrcSend, block_size, CL_TRC_SIGNED),
      CL_TRC_FIELD(CL_TrcSend, mode, CL_TRC_MODE),
      CL_TRC_FIELD(CL_TrcSend, timeout, CL_TRC_UNSIGNED),
      CL_TRC_FIELD(CL_TrcSend, data_length, CL_TRC_UNSIGNED),
      CL_TRC_FIELD(CL_TrcSend, data, CL_TRC_BYTES), CL_TRC_COMMON(CL_TrcSend)}},
    {"CL_DiscMSGC_M",
     CL_API_DISC_MSGC,
     sizeof(CL_TrcDisconnect),
     CL_TRC_FIELD(CL_TrcDisconnect, result, CL_TRC_UNSIGNED),
     {CL_TRC_FIELD(CL_TrcDisconnect, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcDisconnect, buffer_out, CL_TRC_ADDRESS),
      CL_TRC_FIELD(CL_TrcDisconnect, unsent_out, CL_TRC_ADDRESS), CL_TRC_COMMON(CL_TrcDisconnect)}},
    {"CL_StartTIMER_M",
     CL_API_START_TIMER,
     sizeof(CL_TrcStartTimer),
     CL_TRC_FIELD(CL_TrcStartTimer, result, CL_TRC_UNSIGNED),
     {CL_TRC_FIELD(CL_TrcStartTimer, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcStartTimer, seconds, CL_TRC_UNSIGNED),
      CL_TRC_FIELD(CL_TrcStartTimer, mode, CL_TRC_MODE), CL_TRC_COMMON(CL_TrcStartTimer)}},
    CL_TRC_HANDLE_OPERATION(CL_API_STOP_TIMER, "CL_StopTIMER_M", CL_TRC_UNSIGNED),
    {"CL_OpenFile_M",
     CL_API_OPEN_FILE,
     offsetof(CL_TrcOpenFile, path),
     CL_TRC_FIELD(CL_TrcOpenFile, result, CL_TRC_HANDLE),
     {CL_TRC_FIELD(CL_TrcOpenFile, path, CL_TRC_TEXT),
      CL_TRC_FIELD(CL_TrcOpenFile, flags, CL_TRC_HEX),
      CL_TRC_FIELD(CL_TrcOpenFile, mode, CL_TRC_OCTAL), CL_TRC_COMMON(CL_TrcOpenFile)}},
    CL_TRC_HANDLE_OPERATION(CL_API_CLOSE_FILE, "CL_CloseFile_M", CL_TRC_UNSIGNED),
    {"CL_WriteFile_M",
     CL_API_WRITE_FILE,
     sizeof(CL_TrcFileData),
     CL_TRC_FIELD(CL_TrcFileData, result, CL_TRC_SIGNED),
     {CL_TRC_FIELD(CL_TrcFileData, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcFileData, buffer, CL_TRC_ADDRESS),
      CL_TRC_FIELD(CL_TrcFileData, length, CL_TRC_UNSIGNED),
      CL_TRC_FIELD(CL_TrcFileData, data, CL_TRC_BYTES), CL_TRC_COMMON(CL_TrcFileData)}},
    {"CL_ReadFile_M",
     CL_API_READ_FILE,
     sizeof(CL_TrcFileData),
     CL_TRC_FIELD(CL_TrcFileData, result, CL_TRC_SIGNED),
     {CL_TRC_FIELD(CL_TrcFileData, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcFileData, buffer, CL_TRC_ADDRESS),
      CL_TRC_FIELD(CL_TrcFileData, length, CL_TRC_UNSIGNED),
      CL_TRC_FIELD(CL_TrcFileData, data, CL_TRC_BYTES), CL_TRC_COMMON(CL_TrcFileData)}},
    {"CL_FlushFile_M",
     CL_API_FLUSH_FILE,
     sizeof(CL_TrcFlush),
     CL_TRC_FIELD(CL_TrcFlush, result, CL_TRC_SIGNED),
     {CL_TRC_FIELD(CL_TrcFlush, handle, CL_TRC_HANDLE), CL_TRC_COMMON(CL_TrcFlush)}},
    {"CL_SeekFile_M",
     CL_API_SEEK_FILE,
     sizeof(CL_TrcSeek),
     CL_TRC_FIELD(CL_TrcSeek, result, CL_TRC_SIGNED),
     {CL_TRC_FIELD(CL_TrcSeek, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcSeek, offset, CL_TRC_SIGNED),
      CL_TRC_FIELD(CL_TrcSeek, whence, CL_TRC_UNSIGNED), CL_TRC_COMMON(CL_TrcSeek)}},
    {"CL_DeleteFile_M",
     CL_API_DELETE_FILE,
     offsetof(CL_TrcDeleteFile, path),
     CL_TRC_FIELD(CL_TrcDeleteFile, result, CL_TRC_UNSIGNED),
     {CL_TRC_FIELD(CL_TrcDeleteFile, path, CL_TRC_TEXT), CL_TRC_COMMON(CL_TrcDeleteFile)}},
    CL_TRC_HANDLE_OPERATION(CL_API_MAP_SHM, "CL_MapSHM_M", CL_TRC_ADDRESS),
    CL_TRC_HANDLE_OPERATION(CL_API_UNMAP_SHM, "CL_UnmapSHM_M", CL_TRC_UNSIGNED),
    CL_TRC_HANDLE_OPERATION(CL_API_CLOSE_SHM, "CL_CloseSHM_M", CL_TRC_UNSIGNED),
    {"CL_SetFD_M",
     CL_API_SET_FD,
     sizeof(CL_TrcSetFd),
     CL_TRC_FIELD(CL_TrcSetFd, result, CL_TRC_UNSIGNED),
     {CL_TRC_FIELD(CL_TrcSetFd, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcSetFd, count, CL_TRC_UNSIGNED),
      CL_TRC_FIELD(CL_TrcSetFd, sets, CL_TRC_SETS), CL_TRC_COMMON(CL_TrcSetFd)}},
    CL_TRC_HANDLE_OPERATION(CL_API_SET_THREAD, "CL_SetThreadFd_M", CL_TRC_UNSIGNED),
    {"callback",
     CL_API_CALLBACK,
     sizeof(CL_TrcCallback),
     CL_TRC_FIELD(CL_TrcCallback, result, CL_TRC_UNSIGNED),
     {CL_TRC_FIELD(CL_TrcCallback, type, CL_TRC_EVENT),
      CL_TRC_FIELD(CL_TrcCallback, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcCallback, callback, CL_TRC_ADDRESS),
      CL_TRC_FIELD(CL_TrcCallback, arg1, CL_TRC_HEX),
      CL_TRC_FIELD(CL_TrcCallback, arg2, CL_TRC_HEX),
      CL_TRC_FIELD(CL_TrcCallback, data, CL_TRC_ADDRESS),
      CL_TRC_FIELD(CL_TrcCallback, data_length, CL_TRC_SIGNED),
      CL_TRC_FIELD(CL_TrcCallback, exit_reason, CL_TRC_UNSIGNED),
      CL_TRC_FIELD(CL_TrcCallback, exit_value, CL_TRC_UNSIGNED),
      CL_TRC_FIELD(CL_TrcCallback, error, CL_TRC_ERROR)}},
    {"status",
     CL_API_STATUS,
     sizeof(CL_TrcStatus),
     {0, CL_TRC_UNSIGNED, 0, 0},
     {CL_TRC_FIELD(CL_TrcStatus, handle, CL_TRC_HANDLE),
      CL_TRC_FIELD(CL_TrcStatus, old_status, CL_TRC_STATUS),
      CL_TRC_FIELD(CL_TrcStatus, status, CL_TRC_STATUS),
      CL_TRC_FIELD(CL_TrcStatus, old_sub_status, CL_TRC_SUB_STATUS),
      CL_TRC_FIELD(CL_TrcStatus, sub_status, CL_TRC_SUB_STATUS)}},
};

enum { CL_TRC_OPERATION_COUNT = sizeof CL_TRC_OPERATIONS / sizeof CL_TRC_OPERATIONS[0] };

#endif
