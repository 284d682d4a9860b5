#include <qvcl/qvcl.h>
#include <qvcl/starter.h>

int main(void) {
    return cl_starter_pid() == cl_u_getpid() ? 0 : 1;
}
