/* The life of the library and a call into the companion, as a stranger would write them. */
#include <qvcl/qvcl.h>
#include <qvcl/starter.h>
#include <stdio.h>

int main(void) {
    CL_ErrInfo err;
    if (!CL_Init(1, NULL, &err)) {
        fprintf(stderr, "init: %u\n", err.err);
        return 1;
    }
    /* Nobody to tell: no failure either. */
    if (CL_NotifyManager("READY=1", &err) || err.err) {
        fprintf(stderr, "notify: %u\n", err.err);
        return 1;
    }
    return CL_End(&err) && CL_EM_MainTable.state == CL_STATE_ENDED ? 0 : 1;
}
