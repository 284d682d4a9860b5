// The configuration reader over arbitrary bytes, against its model.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "../conf_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int file = memfd_create("conf", MFD_CLOEXEC);
    if (write(file, data, size) != static_cast<ssize_t>(size)) abort();
    const conf_model::Outcome found =
        conf_model::read(("/proc/self/fd/" + std::to_string(file)).c_str());
    close(file);
    const auto expected = conf_model::Model().read({reinterpret_cast<const char *>(data), size});
    if (found == expected) return 0;
    std::cerr << "expected " << expected << "\nfound " << found << std::endl;
    abort();
}
