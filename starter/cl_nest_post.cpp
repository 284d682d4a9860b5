// Posts: queues that any thread fills and the loop's thread empties, without a lock.
//
// A bounded queue is a ring of cells, each with a number that says whose turn it is: the place for
// the next thread to fill, or one more when it is filled. Threads take places by advancing `tail`.
// A growing one is a stack to which threads add, and which the loop takes whole and turns round.
//
// `awake` says that the loop has been woken and has not seen the queue empty since. The loop clears
// it before it looks a last time; so a thread that finds it set knows that its post will be seen.
#include <qvcl/qvcl.h>
#include <sys/eventfd.h>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "starter/nest.h"

namespace qvcl::nest {

namespace {

constexpr Failure fail{place(__FILE__)};

constexpr uint32_t kMostCapacity = 1u << 20;
constexpr size_t kApart = 64;  // bytes, so that threads and loop do not share a line

struct Post {
    CL_NestWork work;
    uint64_t arg1;
    uint64_t arg2;
};

struct Cell {
    std::atomic<uint64_t> turn;  // == place: empty; place + 1: filled
    Post post;
};

struct Node {
    Node *next;
    Post post;
};

}  // namespace

struct Posts {
    int wake;        // eventfd
    uint32_t cells;  // power of two; 0: it grows
    CL_NestDrop drop;

    char apart1[kApart];
    std::atomic<uint64_t> tail;
    std::atomic<Node *> stack;
    char apart2[kApart];
    std::atomic<uint32_t> awake;
    char apart3[kApart];

    uint64_t head;  // the loop's thread only, and so:
    Node *taken;    // of the stack, oldest first

    Cell *ring() { return reinterpret_cast<Cell *>(this + 1); }
    Cell &cell(uint64_t place) { return ring()[place & (cells - 1)]; }
};

namespace {

// --- Any thread ---

uint32_t fill_cell(Posts &posts, const Post &post) {
    uint64_t place = posts.tail.load(std::memory_order_relaxed);
    for (;;) {
        Cell &cell = posts.cell(place);
        const uint64_t turn = cell.turn.load(std::memory_order_acquire);
        if (turn == place) {
            if (posts.tail.compare_exchange_weak(place, place + 1, std::memory_order_relaxed)) {
                cell.post = post;
                cell.turn.store(place + 1, std::memory_order_release);
                return 0;
            }
        } else if (turn < place) {
            return EAGAIN;
        } else {
            place = posts.tail.load(std::memory_order_relaxed);
        }
    }
}

uint32_t push_node(Posts &posts, const Post &post) {
    auto *node = static_cast<Node *>(malloc(sizeof(Node)));
    if (node == nullptr) return ENOMEM;
    *node = {posts.stack.load(std::memory_order_relaxed), post};
    while (!posts.stack.compare_exchange_weak(node->next, node, std::memory_order_release,
                                              std::memory_order_relaxed)) {
    }
    return 0;
}

// A write that fails for another reason than that the counter is full would leave the loop asleep:
// the next post tries again.
void wake(Posts &posts) {
    if (posts.awake.exchange(1, std::memory_order_acq_rel) != 0) return;
    const uint64_t one = 1;
    if (cl_u_write(posts.wake, &one, sizeof one) == -1 && errno != EAGAIN)
        posts.awake.store(0, std::memory_order_release);
}

// --- The loop's thread ---

bool take_cell(Posts &posts, Post *post) {
    Cell &cell = posts.cell(posts.head);
    if (cell.turn.load(std::memory_order_acquire) != posts.head + 1) return false;
    *post = cell.post;
    cell.turn.store(posts.head + posts.cells, std::memory_order_release);
    ++posts.head;
    return true;
}

bool take_node(Posts &posts, Post *post) {
    if (posts.taken == nullptr) {
        Node *newest = posts.stack.exchange(nullptr, std::memory_order_acquire);
        while (newest != nullptr) {
            Node *next = newest->next;
            newest->next = posts.taken;
            posts.taken = newest;
            newest = next;
        }
    }
    Node *node = posts.taken;
    if (node == nullptr) return false;
    posts.taken = node->next;
    *post = node->post;
    free(node);
    return true;
}

bool take(Posts &posts, Post *post) {
    return posts.cells != 0 ? take_cell(posts, post) : take_node(posts, post);
}

// The next post; when there is none, the eventfd is not readable afterwards unless there is one.
bool next_post(Posts &posts, Post *post) {
    if (take(posts, post)) return true;
    uint64_t times;
    if (cl_u_read(posts.wake, &times, sizeof times) == -1 && errno != EAGAIN) return false;
    posts.awake.exchange(0, std::memory_order_acq_rel);
    if (!take(posts, post)) return false;
    wake(posts);  // the turn may end before the queue is empty
    return true;
}

Posts *allocate(uint32_t capacity, CL_NestDrop drop, const char *file, uint32_t line) {
    uint32_t cells = capacity != 0 ? 2 : 0;  // with one cell "filled" and "empty" are one number
    while (cells < capacity)
        cells *= 2;
    void *memory = CL_malloc_M(sizeof(Posts) + cells * sizeof(Cell), 0, file, line);
    if (memory == nullptr) return nullptr;
    auto *posts = new (memory) Posts{.wake = -1, .cells = cells, .drop = drop};
    for (uint32_t i = 0; i < cells; ++i)
        (new (posts->ring() + i) Cell)->turn.store(i, std::memory_order_relaxed);
    return posts;
}

void free_posts(Posts *posts) {
    if (posts->wake != -1) cl_u_close(posts->wake);
    CL_free_M(posts, 0, CL_FILE_LINE);
}

uint64_t drop_all(Posts &posts) {
    uint64_t left = 0;
    Post post;
    for (; take(posts, &post); ++left)
        if (posts.drop != nullptr) posts.drop(post.work, post.arg1, post.arg2);
    return left;
}

}  // namespace

uint32_t posts_ready(Nest &nest, Handle &handle, uint32_t /*events*/) {
    const Life life(handle);
    const uint32_t most = nest.most;
    Posts &posts = *handle.source.posts;
    uint32_t result = 0;
    Post post;
    for (uint32_t called = 0; called < most && next_post(posts, &post); ++called) {
        result = Told(nest, CL_EVENT_NEST_POST, handle,
                      {0, any_function(post.work), post.arg1, post.arg2})
                     .call(post.work, post.arg1, post.arg2);
        if (result != 0 || life.ended()) break;
    }
    return result;
}

void release_posts(Nest &nest, Handle &handle) {
    detach(nest, handle);
    drop_all(*handle.source.posts);
    free_posts(handle.source.posts);
}

}  // namespace qvcl::nest

using namespace qvcl::nest;

extern "C" CL_NestPosts *CL_CreateNestPosts_M(uint32_t capacity, uint32_t priority,
                                              CL_NestDrop drop, CL_ErrInfo *err,
                                              uint8_t /*callerFlag*/, const char *file,
                                              uint32_t line) {
    const Report report(err);
    Nest *nest = existing(fail, report);
    if (nest == nullptr) return nullptr;
    if (capacity > kMostCapacity) return fail(report, EINVAL);
    Handle *handle = nest->handles.take(kPosts, {.priority = priority}, file, line);
    if (handle == nullptr) return fail(report, ENOMEM);
    Posts *posts = allocate(capacity, drop, file, line);
    if (posts == nullptr) {
        nest->handles.give_back(handle);
        return fail(report, ENOMEM);
    }
    handle->source.posts = posts;
    posts->wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (posts->wake != -1 && attach(*nest, *handle, posts->wake, EPOLLIN))
        return reinterpret_cast<CL_NestPosts *>(handle);
    fail.sys(report);
    remove(*nest, *handle);
    return nullptr;
}

extern "C" uint32_t CL_NestPost(CL_NestPosts *posts, CL_NestWork work, uint64_t arg1, uint64_t arg2,
                                CL_ErrInfo *err) {
    const Report report(err);
    if (posts == nullptr || work == nullptr) return fail(report, EFAULT);
    Posts &queue = *entry(posts).source.posts;
    const Post post = {work, arg1, arg2};
    const uint32_t error = queue.cells != 0 ? fill_cell(queue, post) : push_node(queue, post);
    if (error != 0) return fail(report, error);
    wake(queue);
    return 1;
}

extern "C" uint32_t CL_DeleteNestPosts_M(CL_NestPosts *posts, uint64_t *left, CL_ErrInfo *err,
                                         uint8_t /*callerFlag*/, const char * /*file*/,
                                         uint32_t /*line*/) {
    const Report report(err);
    Nest *nest = owner(fail, posts, kPosts, report);
    if (nest == nullptr) return 0;
    const uint64_t dropped = drop_all(*entry(posts).source.posts);
    if (left != nullptr) *left = dropped;
    remove(*nest, entry(posts));
    return 1;
}
