// Filling the error record, in one place.
//
// Each source file has one Failure bound to its module; where one module number spans several
// files, each file has a range of location numbers of its own, so that a number names one site.
// The number itself is the line of the failing call and is never typed.
#pragma once

#include <cerrno>

#include <qvcl/main.h>

namespace qvcl {

// What a failing operation returns: 0 or null.
struct Failed {
    operator uint32_t() const { return 0; }
    template <class T>
    operator T *() const {
        return nullptr;
    }
};

class Failure {
  public:
    explicit constexpr Failure(uint32_t module, uint32_t range = 0)
        : module_(module), base_(range * 10000) {}

    // A failure that the library detected itself. With code 0: a success that says where it ended.
    Failed operator()(CL_ErrInfo *err, uint32_t code, uint32_t line = __builtin_LINE()) const {
        return both(err, code, code, line);
    }

    // The same with a detail of its own.
    Failed both(CL_ErrInfo *err, uint32_t code, uint32_t detail,
                uint32_t line = __builtin_LINE()) const {
        *err = {code, detail, module_, base_ + line, CL_MainTable->version};
        return {};
    }

    // A system call that has just failed; errno says why.
    Failed sys(CL_ErrInfo *err, uint32_t line = __builtin_LINE()) const {
        both(err, 0, static_cast<uint32_t>(errno), line);
        CL_SetIndependErr(err);
        return {};
    }

    // The same module's, with the numbers of a file that several modules share.
    constexpr Failure in(uint32_t range) const { return Failure(module_, range); }

  private:
    uint32_t module_;
    uint32_t base_;
};

}  // namespace qvcl
