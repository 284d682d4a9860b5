/* The library's trace records: what is in the library ring, field by field.
 *
 * The entry and the exit record of a call are the same bytes written twice: the exit record adds
 * the result and a copy of the error record. Padding is zero. Records that carry a path end 8
 * bytes after its last character (7 bytes after the field's start when the path is null); all
 * other lengths are those of the structs, except as said there. */
#ifndef QVCL_TRACE_RECORDS_H
#define QVCL_TRACE_RECORDS_H

#include <qvcl/event.h>
#include <qvcl/trace.h>

/* API ids. */
enum {
    CL_API_INIT = 1,
    CL_API_LOOP = 2, /* both loops */
    CL_API_END = 4,
    CL_API_CREATE_FD = 17,
    CL_API_ADD_LIST = 18,
    CL_API_DELETE_FD = 19,
    CL_API_DEL_LIST = 20,
    CL_API_OPEN_MSGS = 33,
    CL_API_ACCEPT_MSGS = 34,
    CL_API_CLOSE_MSGS = 35,
    CL_API_CNCT_MSGC = 49,
    CL_API_RECV_MSGC = 50,
    CL_API_SEND_MSGC = 51,
    CL_API_DISC_MSGC = 52,
    CL_API_START_TIMER = 65,
    CL_API_STOP_TIMER = 66,
    CL_API_OPEN_FILE = 81,
    CL_API_CLOSE_FILE = 82,
    CL_API_WRITE_FILE = 83,
    CL_API_READ_FILE = 84,
    CL_API_FLUSH_FILE = 85,
    CL_API_SEEK_FILE = 86,
    CL_API_DELETE_FILE = 87,
    CL_API_MAP_SHM = 99,
    CL_API_UNMAP_SHM = 100,
    CL_API_CLOSE_SHM = 101,
    CL_API_SET_FD = 113,
    CL_API_SET_THREAD = 115,
    CL_API_CALLBACK = 254,
    CL_API_STATUS = 255
};

/* CL_Init_M; the count shares the result's eight bytes. */
typedef struct CL_TrcInit {
    CL_TrcHead head;
    uint32_t result;
    uint32_t count;
    uint64_t err_address;
    CL_ErrInfo error;
    char path[108];
    uint8_t tail[8];
} CL_TrcInit;
CL_LAYOUT_AT(CL_TrcInit, result, 56);
CL_LAYOUT_AT(CL_TrcInit, count, 60);
CL_LAYOUT_AT(CL_TrcInit, error, 72);
CL_LAYOUT_AT(CL_TrcInit, path, 92);

/* CL_EventLoop_M, CL_EventLoopThread_M, CL_End_M. */
typedef struct CL_TrcProcess {
    CL_TrcHead head;
    uint64_t result;
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t reserved;
} CL_TrcProcess;
CL_LAYOUT_AT(CL_TrcProcess, error, 72);
CL_LAYOUT_SIZE(CL_TrcProcess, 96);

/* Every operation whose only argument is the handle. */
typedef struct CL_TrcHandle {
    CL_TrcHead head;
    uint64_t result; /* CL_MapSHM_M: the address */
    uint64_t handle;
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t reserved;
} CL_TrcHandle;
CL_LAYOUT_AT(CL_TrcHandle, handle, 64);
CL_LAYOUT_AT(CL_TrcHandle, error, 80);
CL_LAYOUT_SIZE(CL_TrcHandle, 104);

/* CL_CreateFD_M. */
typedef struct CL_TrcCreate {
    CL_TrcHead head;
    uint64_t result; /* the handle */
    uint32_t kind;
    uint32_t reserved;
    uint64_t callback;
    uint64_t arg1;
    uint64_t arg2;
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t reserved2;
} CL_TrcCreate;
CL_LAYOUT_AT(CL_TrcCreate, kind, 64);
CL_LAYOUT_AT(CL_TrcCreate, callback, 72);
CL_LAYOUT_AT(CL_TrcCreate, err_address, 96);
CL_LAYOUT_AT(CL_TrcCreate, error, 104);
CL_LAYOUT_SIZE(CL_TrcCreate, 128);

/* CL_AddEventList_M. */
typedef struct CL_TrcAddList {
    CL_TrcHead head;
    uint64_t result;
    uint64_t handle;
    uint32_t priority;
    uint32_t reserved;
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t reserved2;
} CL_TrcAddList;
CL_LAYOUT_AT(CL_TrcAddList, priority, 72);
CL_LAYOUT_AT(CL_TrcAddList, error, 88);
CL_LAYOUT_SIZE(CL_TrcAddList, 112);

/* CL_StartTIMER_M. */
typedef struct CL_TrcStartTimer {
    CL_TrcHead head;
    uint64_t result;
    uint64_t handle;
    uint32_t seconds;
    uint32_t mode;
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t reserved;
} CL_TrcStartTimer;
CL_LAYOUT_AT(CL_TrcStartTimer, seconds, 72);
CL_LAYOUT_AT(CL_TrcStartTimer, mode, 76);
CL_LAYOUT_AT(CL_TrcStartTimer, error, 88);
CL_LAYOUT_SIZE(CL_TrcStartTimer, 112);

/* CL_OpenMSGS_M. */
typedef struct CL_TrcOpenServer {
    CL_TrcHead head;
    uint64_t result;
    uint64_t handle;
    uint32_t backlog;
    uint32_t reserved;
    uint64_t err_address;
    CL_ErrInfo error;
    char path[108];
    uint8_t tail[8];
} CL_TrcOpenServer;
CL_LAYOUT_AT(CL_TrcOpenServer, backlog, 72);
CL_LAYOUT_AT(CL_TrcOpenServer, err_address, 80);
CL_LAYOUT_AT(CL_TrcOpenServer, error, 88);
CL_LAYOUT_AT(CL_TrcOpenServer, path, 108);

/* CL_AcceptMSGS_M. */
typedef struct CL_TrcAccept {
    CL_TrcHead head;
    uint64_t result; /* the new handle */
    uint64_t handle;
    uint64_t callback;
    uint64_t arg1;
    uint64_t arg2;
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t reserved;
} CL_TrcAccept;
CL_LAYOUT_AT(CL_TrcAccept, callback, 72);
CL_LAYOUT_AT(CL_TrcAccept, err_address, 96);
CL_LAYOUT_AT(CL_TrcAccept, error, 104);
CL_LAYOUT_SIZE(CL_TrcAccept, 128);

/* CL_CnctMSGC_M. */
typedef struct CL_TrcConnect {
    CL_TrcHead head;
    uint64_t result;
    uint64_t handle;
    uint32_t mode;
    uint32_t reserved; /* the argument of that name */
    uint64_t err_address;
    CL_ErrInfo error;
    char path[109];
    uint8_t tail[15];
} CL_TrcConnect;
CL_LAYOUT_AT(CL_TrcConnect, mode, 72);
CL_LAYOUT_AT(CL_TrcConnect, reserved, 76);
CL_LAYOUT_AT(CL_TrcConnect, err_address, 80);
CL_LAYOUT_AT(CL_TrcConnect, error, 88);
CL_LAYOUT_AT(CL_TrcConnect, path, 108);

/* CL_RecvMSGC_M. */
typedef struct CL_TrcReceive {
    CL_TrcHead head;
    uint64_t result;
    uint64_t handle;
    uint64_t buffer;
    uint32_t capacity;
    uint32_t mode;
    uint32_t timeout;
    uint32_t reserved;
    uint64_t err_address;
    CL_ErrInfo error;
    uint8_t data[32]; /* exit after a success: the first bytes of the buffer */
    uint32_t reserved2;
} CL_TrcReceive;
CL_LAYOUT_AT(CL_TrcReceive, capacity, 80);
CL_LAYOUT_AT(CL_TrcReceive, mode, 84);
CL_LAYOUT_AT(CL_TrcReceive, timeout, 88);
CL_LAYOUT_AT(CL_TrcReceive, err_address, 96);
CL_LAYOUT_AT(CL_TrcReceive, error, 104);
CL_LAYOUT_AT(CL_TrcReceive, data, 124);
CL_LAYOUT_SIZE(CL_TrcReceive, 160);

/* CL_SendMSGC_M. The entry record ends after the data that it holds, the exit record is whole. */
typedef struct CL_TrcSend {
    CL_TrcHead head;
    uint64_t result;
    uint64_t handle;
    uint64_t block;
    uint32_t block_size;
    uint32_t mode;
    uint32_t timeout;
    uint32_t reserved;
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t data_length;
    uint8_t data[72]; /* the first bytes of the block; at exit with the header filled, but after an
                       * end callback (4) as they were at entry */
} CL_TrcSend;
CL_LAYOUT_AT(CL_TrcSend, block_size, 80);
CL_LAYOUT_AT(CL_TrcSend, err_address, 96);
CL_LAYOUT_AT(CL_TrcSend, error, 104);
CL_LAYOUT_AT(CL_TrcSend, data_length, 124);
CL_LAYOUT_AT(CL_TrcSend, data, 128);
CL_LAYOUT_SIZE(CL_TrcSend, 200);

/* CL_DiscMSGC_M. */
typedef struct CL_TrcDisconnect {
    CL_TrcHead head;
    uint64_t result;
    uint64_t handle;
    uint64_t buffer_out;
    uint64_t unsent_out;
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t reserved;
} CL_TrcDisconnect;
CL_LAYOUT_AT(CL_TrcDisconnect, err_address, 88);
CL_LAYOUT_AT(CL_TrcDisconnect, error, 96);
CL_LAYOUT_SIZE(CL_TrcDisconnect, 120);

/* CL_OpenFile_M. */
typedef struct CL_TrcOpenFile {
    CL_TrcHead head;
    uint64_t result; /* the handle */
    uint32_t flags;
    uint32_t mode;
    uint64_t err_address;
    CL_ErrInfo error;
    char path[108];
    uint8_t tail[8];
} CL_TrcOpenFile;
CL_LAYOUT_AT(CL_TrcOpenFile, flags, 64);
CL_LAYOUT_AT(CL_TrcOpenFile, mode, 68);
CL_LAYOUT_AT(CL_TrcOpenFile, error, 80);
CL_LAYOUT_AT(CL_TrcOpenFile, path, 100);

/* CL_WriteFile_M (data at entry and exit), CL_ReadFile_M (data at exit). */
typedef struct CL_TrcFileData {
    CL_TrcHead head;
    uint64_t result; /* signed */
    uint64_t handle;
    uint64_t buffer;
    uint64_t length;
    uint64_t err_address;
    CL_ErrInfo error;
    uint8_t data[16]; /* the first bytes written or read */
    uint32_t reserved;
} CL_TrcFileData;
CL_LAYOUT_AT(CL_TrcFileData, length, 80);
CL_LAYOUT_AT(CL_TrcFileData, err_address, 88);
CL_LAYOUT_AT(CL_TrcFileData, error, 96);
CL_LAYOUT_AT(CL_TrcFileData, data, 116);
CL_LAYOUT_SIZE(CL_TrcFileData, 136);

/* CL_FlushFile_M. */
typedef struct CL_TrcFlush {
    CL_TrcHead head;
    uint64_t result; /* signed */
    uint64_t handle;
    uint64_t reserved[2];
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t reserved2;
} CL_TrcFlush;
CL_LAYOUT_AT(CL_TrcFlush, err_address, 88);
CL_LAYOUT_AT(CL_TrcFlush, error, 96);
CL_LAYOUT_SIZE(CL_TrcFlush, 120);

/* CL_SeekFile_M. */
typedef struct CL_TrcSeek {
    CL_TrcHead head;
    uint64_t result; /* signed */
    uint64_t handle;
    int32_t offset;
    uint32_t whence;
    uint64_t reserved[2];
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t reserved2;
} CL_TrcSeek;
CL_LAYOUT_AT(CL_TrcSeek, offset, 72);
CL_LAYOUT_AT(CL_TrcSeek, whence, 76);
CL_LAYOUT_AT(CL_TrcSeek, err_address, 96);
CL_LAYOUT_AT(CL_TrcSeek, error, 104);
CL_LAYOUT_SIZE(CL_TrcSeek, 128);

/* CL_DeleteFile_M. */
typedef struct CL_TrcDeleteFile {
    CL_TrcHead head;
    uint64_t result;
    uint64_t err_address;
    CL_ErrInfo error;
    char path[109];
    uint8_t tail[15];
} CL_TrcDeleteFile;
CL_LAYOUT_AT(CL_TrcDeleteFile, err_address, 64);
CL_LAYOUT_AT(CL_TrcDeleteFile, error, 72);
CL_LAYOUT_AT(CL_TrcDeleteFile, path, 92);

/* CL_SetFD_M. */
typedef struct CL_TrcSetFd {
    CL_TrcHead head;
    uint64_t result;
    uint64_t handle;
    uint32_t count;
    uint32_t reserved;
    CL_FdSets sets;
    uint64_t err_address;
    CL_ErrInfo error;
    uint32_t reserved2;
} CL_TrcSetFd;
CL_LAYOUT_AT(CL_TrcSetFd, count, 72);
CL_LAYOUT_AT(CL_TrcSetFd, sets, 80);
CL_LAYOUT_AT(CL_TrcSetFd, err_address, 464);
CL_LAYOUT_AT(CL_TrcSetFd, error, 472);
CL_LAYOUT_SIZE(CL_TrcSetFd, 496);

/* cl_Callback_M. The entry record goes on with event data: up to 32 bytes of the message
 * (CL_EVENT_MESSAGE, CL_EVENT_SENT) or the three sets (CL_EVENT_DESCRIPTOR). */
typedef struct CL_TrcCallback {
    CL_TrcHead head;
    uint64_t result;
    uint64_t callback;
    uint64_t handle;
    uint64_t arg1;
    uint64_t arg2;
    uint32_t type;
    uint32_t reserved;
    uint64_t data;
    int32_t data_length;
    uint32_t reserved2;
    uint64_t block[3]; /* the event's queue */
    uint32_t exit_reason;
    uint32_t exit_value;
    CL_ErrInfo error; /* the event's */
    uint32_t reserved3;
} CL_TrcCallback;
CL_LAYOUT_AT(CL_TrcCallback, callback, 64);
CL_LAYOUT_AT(CL_TrcCallback, handle, 72);
CL_LAYOUT_AT(CL_TrcCallback, type, 96);
CL_LAYOUT_AT(CL_TrcCallback, data, 104);
CL_LAYOUT_AT(CL_TrcCallback, data_length, 112);
CL_LAYOUT_AT(CL_TrcCallback, block, 120);
CL_LAYOUT_AT(CL_TrcCallback, exit_reason, 144);
CL_LAYOUT_AT(CL_TrcCallback, exit_value, 148);
CL_LAYOUT_AT(CL_TrcCallback, error, 152);
CL_LAYOUT_SIZE(CL_TrcCallback, 176);

enum { CL_TRC_EVENT_BYTES = 32 }; /* of a message, copied behind a callback entry record */

/* cl_StatusChange_M: one record a change. */
typedef struct CL_TrcStatus {
    CL_TrcHead head;
    uint64_t handle;
    uint32_t status;
    uint32_t sub_status;
    uint32_t old_status;
    uint32_t old_sub_status;
} CL_TrcStatus;
CL_LAYOUT_AT(CL_TrcStatus, handle, 56);
CL_LAYOUT_AT(CL_TrcStatus, status, 64);
CL_LAYOUT_AT(CL_TrcStatus, old_sub_status, 76);
CL_LAYOUT_SIZE(CL_TrcStatus, 80);

#endif
