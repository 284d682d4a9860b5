#include "tests/support.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

namespace test {

void set_catalogue(std::function<const char *(int id)> text) {
    static std::function<const char *(int)> function;
    function = std::move(text);
    const auto call = [](int id, void *) { return function(id); };
    CL_KitCatalogue(function ? static_cast<const char *(*)(int, void *)>(call) : nullptr, nullptr);
}

std::vector<std::string> &system_log() {
    static std::vector<std::string> lines;
    return lines;
}
[[maybe_unused]] const bool kNothingGetsThere = [] {
    CL_KitSystemLog([](const char *line, void *) { system_log().emplace_back(line); }, nullptr);
    return true;
}();

std::vector<int> descriptors() {
    std::vector<int> open;
    const Balance now = Balance::now();
    for (int fd = 0; fd < CL_KIT_MAX_DESCRIPTORS; ++fd)
        if ((now.descriptors[fd / 64] >> (fd % 64) & 1) != 0) open.push_back(fd);
    return open;
}

// ---- The library

uint32_t call_action(CL_Object *object, CL_Event *event, uint64_t action, uint64_t) {
    return (*reinterpret_cast<Action *>(action))(object, event);
}

uint32_t watch_readable(CL_Object *object, int fd, CL_ErrInfo *err) {
    const fd_set set = only(fd);
    return CL_SetFD(object, static_cast<uint32_t>(fd) + 1, &set, nullptr, nullptr, err);
}

void back_to_its_kind(CL_Object *object) {
#define BACK_TO_ITS_KIND(number, symbol, name)                          \
    if (object->kind == (number) && object->kind_link.owner == nullptr) \
        CL_QUE_PutTail(&table().kind_queues[CL_KIND_QUEUE_##symbol], object);
    CL_KINDS(BACK_TO_ITS_KIND)
}

void Library::refused(const char *what, int code, int module,
                      const std::function<int64_t()> &call) {
    SCOPED_TRACE(what);
    const auto objects = [] {
        std::string result;
        for (auto *at = static_cast<const CL_Object *>(table().used_queue.head); at != nullptr;
             at = static_cast<const CL_Object *>(at->link.next))
            result.append(reinterpret_cast<const char *>(at), sizeof *at);
        return result;
    };
    const Balance before = Balance::now();
    const std::string as_they_were = objects();
    err = kUntouched;
    EXPECT_EQ(call(), 0);
    EXPECT_THAT(err, FailsWith(code, module));
    EXPECT_EQ(Balance::now(), before);
    EXPECT_TRUE(objects() == as_they_were);
}

CL_Object *Library::watch(int fd, Action *action, uint32_t priority, uint64_t arg2) {
    CL_Object *object = create(CL_KIND_FD, call_action, address(action), arg2);
    EXPECT_NE(object, nullptr) << err;
    if (object == nullptr) return nullptr;
    EXPECT_EQ(watch_readable(object, fd, &err), 1u) << err;
    EXPECT_EQ(priority == 0 ? 1u : CL_AddEventList(object, priority, &err), 1u) << err;
    return object;
}

CL_Object *Library::adopt(CL_Object *child, pid_t pid) {
    child->child.pid = static_cast<uint32_t>(pid);
    cl_StatusChange_M(child, CL_STATUS_READY, 0, "test", 1);
    EXPECT_EQ(CL_AddEventList_M(child, 20, &err, 1, "test", 1), 1u) << err;
    return child;
}

pid_t child_process(const std::function<int()> &life) {
    const pid_t parent = getpid(), pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);  // which has died before
    if (life) _exit(life());
    for (;;)
        pause();
}

pid_t ended_process(int status) {
    const pid_t pid = child_process([=] { return status; });
    siginfo_t info;
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    return pid;
}

size_t sorted_place(const std::vector<int64_t> &keys, int64_t key) {
    size_t low = 0, high = keys.size();
    while (low < high) {
        const size_t middle = (low + high - 1) / 2;
        if (keys[middle] == key) return middle + 1;
        if (keys[middle] < key) low = middle + 1;
        if (keys[middle] > key) high = middle;
    }
    return low;
}

// ---- The rest

Random::Random() {
    const char *given = getenv("QVCL_TEST_SEED");
    const uint64_t seed = given != nullptr ? strtoull(given, nullptr, 0) : std::random_device{}();
    engine_.seed(seed);
    std::cout << "QVCL_TEST_SEED=" << seed << " repeats this run" << std::endl;
}

Pipe::Pipe() {
    EXPECT_EQ(pipe2(ends_, O_NONBLOCK | O_CLOEXEC), 0);
}

Pipe::~Pipe() {
    close(ends_[0]);
    close(ends_[1]);
}

void set_env(const char *name, const char *value) {
    EXPECT_EQ(value != nullptr ? setenv(name, value, 1) : unsetenv(name), 0);
}

}  // namespace test

std::ostream &operator<<(std::ostream &out, const CL_ErrInfo &error) {
    return out << "error " << error.err << " detail " << error.detail << " module " << error.module
               << " line " << error.line << " version " << error.version;
}
