// The main table, and the last step of filling an error record.
//
// Everything stands on these two, so they stand on nothing. The table's storage is exported and may
// be copied into an executable when that is loaded; the constructor (cl_main.cpp) sets the pointer.
#include <qvcl/main.h>

CL_MainBlock CL_EM_MainTable;
CL_MainBlock *CL_MainTable;

void CL_SetIndependErr(CL_ErrInfo *err) {
    err->err = err->detail;
}
