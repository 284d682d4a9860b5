// Filling the error record, in one place.
//
// Each source file says how a call ended with what it declares of these three, bound to its row of
// the table of places:
//
//     constexpr qvcl::Failure fail{qvcl::place(__FILE__)};     it failed
//     constexpr qvcl::Pending pending{qvcl::place(__FILE__)};  it goes on in the loop
//     constexpr qvcl::Success done{qvcl::place(__FILE__)};     it succeeded, and says where it
//     ended
//
// The location number is the line of the call in that file's range and is never typed.
#pragma once

#include <cerrno>

#include <qvcl/loop.h>
#include <qvcl/main.h>

#include "core/places.h"

namespace qvcl {

// The result of an operation that has not succeeded, by its type: 0, null, false, or -1 where a
// success is a count.
struct Failed {
    operator uint32_t() const { return 0; }
    operator int32_t() const { return -1; }
    operator int64_t() const { return -1; }
    operator bool() const { return false; }
    template <class T>
    operator T *() const {
        return nullptr;
    }

    // The same where 0 means that the loop goes on.
    uint32_t ends_loop() const { return CL_LOOP_ERROR; }
};

// What all location numbers of a file have in common.
struct Site {
    uint32_t module;
    uint32_t base;

    constexpr Site(const Place &place, uint32_t in_module)
        : module(in_module), base(place.range * kLinesOfFile) {}

    void fill(CL_ErrInfo *err, uint32_t code, uint32_t detail, uint32_t line) const {
        *err = {code, detail, module, base + line, CL_MainTable->version};
    }
};

// Why a check refuses, where one that reports the caller's line has several reasons.
enum class Reason : uint32_t { wrong_kind, not_live, not_open };

class Failure {
  public:
    explicit constexpr Failure(const Place &place) : Failure(place, place.module) {}

    // Of a shared header, as the module that it works for.
    constexpr Failure(const Place &place, uint32_t module) : site_(place, module) {}

    // A failure that the library detected itself.
    Failed operator()(CL_ErrInfo *err, uint32_t code, uint32_t line = __builtin_LINE()) const {
        return both(err, code, code, line);
    }

    // The same with a detail of its own.
    Failed both(CL_ErrInfo *err, uint32_t code, uint32_t detail,
                uint32_t line = __builtin_LINE()) const {
        site_.fill(err, code, detail, line);
        return {};
    }

    // A system call that has just failed; errno says why.
    Failed sys(CL_ErrInfo *err, uint32_t line = __builtin_LINE()) const {
        site_.fill(err, 0, static_cast<uint32_t>(errno), line);
        CL_SetIndependErr(err);
        return {};
    }

    // The same module's, at another place.
    constexpr Failure at(const Place &place) const { return Failure(place, site_.module); }

    // The same file's, for a check that gives its caller's line.
    constexpr Failure because(Reason reason) const {
        Failure failure = *this;
        failure.site_.base += static_cast<uint32_t>(reason) * kReasonStep;
        return failure;
    }

  private:
    Site site_;
};

class Pending {
  public:
    explicit constexpr Pending(const Place &place) : site_(place, place.module) {}

    Failed operator()(CL_ErrInfo *err, uint32_t line = __builtin_LINE()) const {
        site_.fill(err, CL_ERR_IN_PROGRESS, CL_ERR_IN_PROGRESS, line);
        return {};
    }

  private:
    Site site_;
};

class Success {
  public:
    explicit constexpr Success(const Place &place) : site_(place, place.module) {}

    void operator()(CL_ErrInfo *err, uint32_t line = __builtin_LINE()) const {
        site_.fill(err, 0, 0, line);
    }

  private:
    Site site_;
};

}  // namespace qvcl
