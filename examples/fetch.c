/* Fetches documents over HTTP, many at a time, by the multi interface of libcurl.
 *
 * libcurl tells by itself which of its sockets wait for what, and when it wants to be called: so
 * each of its sockets gets a watch of the nest, and its time-out is a timer of the nest. Neither
 * callback calls libcurl back; what happens, it is told by the loop.
 *
 *   fetch [-t SECONDS] URL...      -t SECONDS  limit for each (default 10)
 */
#define _GNU_SOURCE
#include "example.h"

#include <qvcl/nest.h>

#include <curl/curl.h>
#include <unistd.h>

enum { DONE = 1 }; /* value that ends the loop */
enum { MILLISECOND = 1000000 };
enum { CONNECTIONS = 4 }; /* with one server; the other documents wait */

static CURLM *multi;
static CL_NestTimer *timer;
static int running;
static uint32_t fetched, failed;

/* --- What libcurl has done --- */

static size_t count_bytes(char *data, size_t size, size_t count, void *total) {
    (void)data, (void)size; /* which is 1 */
    *(size_t *)total += count;
    return count;
}

static void finish(CURL *easy, CURLcode result) {
    const char *url = NULL;
    size_t *total;
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &url);
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, (char **)&total);
    if (result == CURLE_OK) {
        printf("%s: %ld, %zu bytes\n", url, status, *total);
    } else {
        printf("%s: %s\n", url, curl_easy_strerror(result));
    }
    ++*(result == CURLE_OK ? &fetched : &failed);
    curl_multi_remove_handle(multi, easy);
    curl_easy_cleanup(easy);
    CL_free(total);
}

static uint32_t go_on(curl_socket_t fd, int ready) {
    CURLMsg *message;
    int left;
    curl_multi_socket_action(multi, fd, ready, &running);
    while ((message = curl_multi_info_read(multi, &left)))
        if (message->msg == CURLMSG_DONE) finish(message->easy_handle, message->data.result);
    return running == 0 ? DONE : 0;
}

/* --- libcurl on the loop --- */

static uint32_t on_watch(CL_NestWatch *watch, uint32_t ready, uint64_t fd, uint64_t arg2) {
    int action = 0;
    (void)watch, (void)arg2;
    if (ready & CL_NEST_READ) action |= CURL_CSELECT_IN;
    if (ready & CL_NEST_WRITE) action |= CURL_CSELECT_OUT;
    if (ready & (CL_NEST_ERROR | CL_NEST_HANGUP)) action |= CURL_CSELECT_ERR;
    return go_on((curl_socket_t)fd, action);
}

static uint32_t on_timer(CL_NestTimer *self, uint64_t missed, uint64_t arg1, uint64_t arg2) {
    (void)self, (void)missed, (void)arg1, (void)arg2;
    return go_on(CURL_SOCKET_TIMEOUT, 0);
}

/* watch: what was assigned to this socket before, or null. libcurl takes a socket back before it
 * closes it. */
static int on_socket(CURL *easy, curl_socket_t fd, int what, void *data, void *watch) {
    CL_ErrInfo err;
    uint32_t events = 0;
    (void)easy, (void)data;
    if (what == CURL_POLL_REMOVE) {
        if (watch && !CL_DeleteNestWatch(watch, &err)) example_fail("CL_DeleteNestWatch", &err);
        return 0;
    }
    if (what & CURL_POLL_IN) events |= CL_NEST_READ;
    if (what & CURL_POLL_OUT) events |= CL_NEST_WRITE;
    if (watch) return CL_ChangeNestWatch(watch, events, &err) ? 0 : -1;
    watch = CL_CreateNestWatch(fd, events, 0, on_watch, (uint64_t)fd, 0, &err);
    if (!watch) return -1;
    curl_multi_assign(multi, fd, watch);
    return 0;
}

static int on_time_out(CURLM *its, long milliseconds, void *data) {
    CL_ErrInfo err;
    (void)its, (void)data;
    const uint32_t set =
        milliseconds < 0
            ? CL_StopNestTimer(timer, &err)
            : CL_StartNestTimer(timer, 0, (uint64_t)milliseconds * MILLISECOND, 0, &err);
    return set ? 0 : -1;
}

static void add(const char *url, long seconds) {
    CURL *easy = curl_easy_init();
    size_t *total = CL_malloc(sizeof *total);
    if (!easy || !total) example_fail_errno("no memory");
    *total = 0;
    curl_easy_setopt(easy, CURLOPT_URL, url);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, seconds);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L); /* SIGALRM is the library's */
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, count_bytes);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, total);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, total);
    if (curl_multi_add_handle(multi, easy) != CURLM_OK) example_fail_errno("curl_multi_add_handle");
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    long seconds = 10;
    int option;
    while ((option = getopt(argc, argv, "t:")) != -1) {
        if (option != 't') return EXIT_FAILURE;
        seconds = strtol(optarg, NULL, 10);
    }
    if (optind == argc) {
        fprintf(stderr, "usage: %s [-t SECONDS] URL...\n", argv[0]);
        return EXIT_FAILURE;
    }
    example_begin("fetch", 1, NULL);
    if (!CL_CreateNest(CL_PRIORITY_FIRST, 0, &err)) example_fail("CL_CreateNest", &err);
    timer = CL_CreateNestTimer(0, on_timer, 0, 0, &err);
    if (!timer) example_fail("CL_CreateNestTimer", &err);

    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi = curl_multi_init();
    if (!multi) example_fail_errno("curl_multi_init");
    curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, on_socket);
    curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, on_time_out);
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, (long)CONNECTIONS);
    for (int i = optind; i < argc; ++i)
        add(argv[i], seconds);

    example_loop();
    printf("%u fetched, %u failed\n", fetched, failed);
    curl_multi_cleanup(multi);
    curl_global_cleanup();
    if (!CL_DeleteNest(&err)) example_fail("CL_DeleteNest", &err);
    return example_end();
}
