/* Intrusive doubly linked queue: the one container of the library, open to applications.
 *
 * The links live inside the elements, so the queue never allocates or frees. An element can be in
 * several queues at once, one per link that it carries; the queue knows at which byte of its
 * elements its link lies. Elements are addressed by their start, never by their link.
 *
 * A link that is in no queue is all zero: zero it before the first use, removal does it
 * afterwards. No locks; each queue is used by one thread at a time. */
#ifndef QVCL_QUEUE_H
#define QVCL_QUEUE_H

#include <qvcl/base.h>

QVCL_BEGIN

/* Queue header. link(e) is the CL_QueueLink at byte link_offset of element e. */
typedef struct CL_Queue {
    void *head;           /* count == 0 ? null : the first element, link(head)->previous == null */
    void *tail;           /* count == 0 ? null : the last element, link(tail)->next == null */
    uint32_t count;       /* elements on the way from head over link(e)->next to tail */
    uint32_t link_offset; /* where in each element its CL_QueueLink for this queue lies */
} CL_Queue;
CL_LAYOUT_AT(CL_Queue, count, 16);
CL_LAYOUT_AT(CL_Queue, link_offset, 20);
CL_LAYOUT_SIZE(CL_Queue, 24);

/* Link of element e in one queue. owner == null: next == previous == null. */
typedef struct CL_QueueLink {
    void *next;      /* next element (not its link), or null; link(next)->previous == e */
    void *previous;  /* previous element, or null; link(previous)->next == e */
    CL_Queue *owner; /* the queue that holds the element, or null */
} CL_QueueLink;
CL_LAYOUT_SIZE(CL_QueueLink, 24);

/* Order of elements, in qsort's form over an array of element pointers: each argument points to a
 * pointer to an element (in searches the first points to the key pointer). Negative, zero,
 * positive; sorted queues ascend. */
typedef int (*CL_Comparator)(const void *a, const void *b);

/* Directions of CL_QUE_Enum and the words it stores in *status. */
enum {
    CL_QUE_FORWARD = 0x1000,
    CL_QUE_BACKWARD = 0x2000,
    CL_QUE_WALKING = 4,       /* an element, or null at the end of the queue */
    CL_QUE_BAD_DIRECTION = 3, /* result null */
    CL_QUE_NOT_HELD = 5       /* the element given is not in this queue; result null */
};

/* Modes of CL_QUE_BSearch. */
enum {
    CL_QUE_EQUAL = 1,          /* only an equal element */
    CL_QUE_EQUAL_OR_LOWER = 2, /* an equal element, else the greatest lower one */
    CL_QUE_EQUAL_OR_HIGHER = 3 /* an equal element, else the least higher one */
};

/* Flags of CL_QUE_Insert. */
enum {
    CL_QUE_BEFORE_ELEMENT = 0x10002, /* before the reference element */
    CL_QUE_AFTER_ELEMENT = 0x10003,  /* after the reference element */
    CL_QUE_SORTED_BEFORE = 0x20002,  /* sorted, before an equal element */
    CL_QUE_SORTED_AFTER = 0x20003,   /* sorted, after the equal element that the search meets */
    CL_QUE_SORTED_UNIQUE = 0x20004   /* sorted, refused when an equal element exists */
};

/* Results of CL_QUE_Insert. */
enum {
    CL_QUE_INSERTED = 0,
    CL_QUE_SEARCH_FAILED = 1, /* no memory for the search array */
    CL_QUE_DUPLICATE = 2,     /* an equal element is present (CL_QUE_SORTED_UNIQUE) */
    CL_QUE_REFUSED = 3,       /* bad flags, or the element is already queued */
    CL_QUE_BAD_REFERENCE = 5  /* the reference element is not in this queue */
};

/* What searches return instead of an element when they could not run (all bits one). */
#ifdef __cplusplus
#define CL_QUE_ERROR (reinterpret_cast<void *>(~uintptr_t{0}))
#else
#define CL_QUE_ERROR ((void *)-1)
#endif

/* Makes `queue` an empty queue whose elements carry their link at byte `link_offset`. */
QVCL_API void CL_QUE_InitQT(CL_Queue *queue, uint32_t link_offset);

/* Number of elements. */
QVCL_API uint32_t CL_QUE_GetNum(const CL_Queue *queue);

/* Appends `element`. 1 on success, 0 on failure: its link is already in this or another queue, or
 * it is null; nothing changed. */
QVCL_API uint32_t CL_QUE_PutTail(CL_Queue *queue, void *element);

/* Removes and returns the first element; null when the queue is empty. */
QVCL_API void *CL_QUE_GetTop(CL_Queue *queue);

/* Removes and returns `element` from any position; null when this queue does not hold it. */
QVCL_API void *CL_QUE_GetData(CL_Queue *queue, void *element);

/* 1 when this queue holds `element`, else 0. An empty queue answers without reading it. */
QVCL_API uint32_t CL_QUE_Isinque(const CL_Queue *queue, const void *element);

/* The neighbour of `element` in `direction` (CL_QUE_FORWARD, CL_QUE_BACKWARD), or the first
 * element of that direction when `element` is null; null at the end. *status receives
 * CL_QUE_WALKING, or why the walk cannot go on. */
QVCL_API void *CL_QUE_Enum(const CL_Queue *queue, const void *element, uint32_t direction,
                           uint32_t *status);

/* First element after `start` (from the head when null) whose `key_length` bytes at byte
 * `key_offset` equal `key`. Null when there is none; CL_QUE_ERROR when this queue does not hold
 * `start`. Passing the previous hit finds the next one. */
QVCL_API void *CL_QUE_Search(const CL_Queue *queue, const void *start, const void *key,
                             uint64_t key_length, uint64_t key_offset);

/* The same, comparing the NUL-terminated `key` with the text stored inside the element. */
QVCL_API void *CL_QUE_SearchStr(const CL_Queue *queue, const void *start, const char *key,
                                uint64_t key_offset);

/* Sorts the queue; the order of equal elements is not kept. `work`: array of at least count
 * pointers, or null to use the stack (up to 128 elements) or library memory. 1 on success, 0 on
 * failure: no memory, queue unchanged. */
QVCL_API uint32_t CL_QUE_Sort(CL_Queue *queue, void **work, CL_Comparator compare);

/* Binary search in a queue sorted by `compare`. `key` is handed to the comparator as its first
 * element; `work` as for CL_QUE_Sort. Null when there is no such element (CL_QUE_EQUAL ...);
 * CL_QUE_ERROR for an unknown mode or without memory. Midpoints round down over the whole queue,
 * which settles which of several equal elements is met. */
QVCL_API void *CL_QUE_BSearch(const CL_Queue *queue, const void *key, int32_t mode, void **work,
                              CL_Comparator compare);

/* Links `element` as `flags` say. `reference` serves the relative flags only, `work` and `compare`
 * the sorted ones only. CL_QUE_INSERTED, or the error: nothing changed.
 * Errors: CL_QUE_SEARCH_FAILED (no memory), CL_QUE_DUPLICATE, CL_QUE_REFUSED (flags, element null
 * or queued), CL_QUE_BAD_REFERENCE. */
QVCL_API uint32_t CL_QUE_Insert(CL_Queue *queue, void *element, uint32_t flags, void *reference,
                                void **work, CL_Comparator compare);

/* Appends every element of `source` to `destination` and leaves `source` empty. 1 on success, 0 on
 * failure: their link offsets differ; nothing changed. Linear in the elements moved. */
QVCL_API uint32_t CL_QUE_Apend(CL_Queue *destination, CL_Queue *source);

/* Removes every element; frees nothing. Always 0. */
QVCL_API uint32_t CL_QUE_Clear(CL_Queue *queue);

/* The queue that holds the element whose link (not element) is at `link`, or null. */
QVCL_API CL_Queue *CL_QUE_GetQT(const void *link);

QVCL_END

#endif
