// A program that is not linked with the library: loads it while it runs, uses it through its
// names, and unloads it. Says what it found on standard output.
#include <dlfcn.h>
#include <qvcl/main.h>
#include <sys/auxv.h>

#include <cstdio>

int main(int count, char **arguments) {
    if (count != 2) {
        return 2;
    }
    void *library = dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const auto find = [library](const char *name) { return dlsym(library, name); };
    CL_MainBlock *table = *static_cast<CL_MainBlock **>(find("CL_MainTable"));
    const auto init = reinterpret_cast<decltype(&CL_Init_M)>(find("CL_Init_M"));
    const auto end = reinterpret_cast<decltype(&CL_End_M)>(find("CL_End_M"));
    printf("privileged %lu, guards %u, entries %u\n", getauxval(AT_SECURE), table->memory_check,
           table->library_ring->entry_count);
    printf("own storage %d, state %u, ring %d\n",
           static_cast<int>(table == find("CL_EM_MainTable")), table->state,
           static_cast<int>(table->library_ring != nullptr));
    CL_ErrInfo err;
    const uint32_t begun = init(5, nullptr, &err, 0, "probe", 1);
    const uint32_t ended = end(&err, 0, "probe", 2);
    printf("begun %u, ended %u, state %u\n", begun, ended, table->state);
    printf("closed %d\n", dlclose(library));
    return 0;
}
