// Where a public function of the companion reports.
#pragma once

#include "core/error.h"

namespace qvcl {

// The caller's error record, cleared; or one for nobody.
class Report {
  public:
    explicit Report(CL_ErrInfo *err) : err_(err != nullptr ? err : &own_) { *err_ = {}; }
    Report(const Report &) = delete;
    Report &operator=(const Report &) = delete;
    operator CL_ErrInfo *() const { return err_; }

  private:
    CL_ErrInfo own_ = {};
    CL_ErrInfo *err_;
};

}  // namespace qvcl
