// The one way to an application's callback and the one way to change an object's status, both
// traced.
#include <cstring>

#include <qvcl/descriptor.h>
#include <qvcl/message.h>
#include <qvcl/steps.h>

#include "diag/traced.h"
#include "loop/known_order.h"

using qvcl::address_of;

namespace {

// What is copied behind a callback entry record: the start of the message that is reported, or the
// descriptor sets.
struct EventData {
    const void *from;
    uint32_t length;
};

EventData bounded(const void *data, int64_t length) {
    constexpr int64_t kMost = CL_TRC_EVENT_BYTES;
    if (data == nullptr || length <= 0) return {nullptr, 0};
    return {data, static_cast<uint32_t>(length < kMost ? length : kMost)};
}

EventData event_data(const CL_Event &event) {
    switch (event.type) {
        case CL_EVENT_MESSAGE:
            return bounded(event.data, static_cast<uint32_t>(event.length));
        case CL_EVENT_SENT: {
            const auto *block = static_cast<const CL_MsgBlock *>(event.data);
            if (block == nullptr) return {nullptr, 0};
            return bounded(&block->header, static_cast<int32_t>(block->sent));
        }
        case CL_EVENT_DESCRIPTOR:
            return {&event.sets, sizeof event.sets};
        default:
            return {nullptr, 0};
    }
}

}  // namespace

uint32_t cl_Callback_M(CL_Callback callback, CL_Object *object, CL_Event *event, uint64_t arg1,
                       uint64_t arg2, uint8_t callerFlag, const char *file, uint32_t line) {
    const EventData data = event_data(*event);
    CL_TrcCallback record = {};
    qvcl::fill_head(record.head, CL_API_CALLBACK, sizeof record + data.length, callerFlag, file,
                    line);
    record.head.marker = CL_MARK_CALLBACK_ENTRY;
    record.callback = reinterpret_cast<uint64_t>(callback);
    record.handle = address_of(object);
    record.arg1 = arg1;
    record.arg2 = arg2;
    record.type = event->type;
    record.data = address_of(event->data);
    record.data_length = event->length;
    memcpy(record.block, &event->queue, sizeof record.block);
    record.exit_reason = event->exit_reason;
    record.exit_value = event->exit_value;
    record.error = event->error;
    qvcl::write_record(&record.head, sizeof record, data.from, CL_RING_LIBRARY);

    // An object without a callback has nobody to tell: the event is dropped.
    const uint32_t result = callback != nullptr ? callback(object, event, arg1, arg2) : 0;

    record.head.length = sizeof record;
    record.head.phase = 1;
    record.head.marker = CL_MARK_CALLBACK_EXIT;
    record.result = result;
    CL_TRC_Write_M(&record, CL_RING_LIBRARY);
    return result;
}

uint32_t cl_StatusChange_M(CL_Object *object, uint32_t status, uint32_t sub_status,
                           const char *file, uint32_t line) {
    constexpr uint8_t kStatusCaller = 2;
    CL_TrcStatus record = {};
    record.old_status = object->status;
    record.old_sub_status = object->sub_status;
    object->status = status;
    object->sub_status = sub_status;
    qvcl::forget_order();
    qvcl::fill_head(record.head, CL_API_STATUS, sizeof record, kStatusCaller, file, line);
    record.head.marker = CL_MARK_STATUS;
    record.handle = address_of(object);
    record.status = status;
    record.sub_status = sub_status;
    return CL_TRC_Write_M(&record, CL_RING_LIBRARY);
}
