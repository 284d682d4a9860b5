/* The one place of the version number: the build reads it from here. */
#ifndef QVCL_VERSION_H
#define QVCL_VERSION_H

#define CL_VERSION_MAJOR 1
#define CL_VERSION_MINOR 1
#define CL_VERSION_PATCH 0

/* The number that the main table and every error record carry: one byte each for major, minor,
 * patch, and one that is zero. */
#define CL_VERSION \
    ((CL_VERSION_MAJOR * 0x1000000u) + (CL_VERSION_MINOR * 0x10000u) + (CL_VERSION_PATCH * 0x100u))

#endif
