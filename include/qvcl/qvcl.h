/* The whole interface of libqvcl. */
#ifndef QVCL_QVCL_H
#define QVCL_QVCL_H

#include <qvcl/base.h>
#include <qvcl/child.h>
#include <qvcl/client.h>
#include <qvcl/conf.h>
#include <qvcl/descriptor.h>
#include <qvcl/event.h>
#include <qvcl/eventlist.h>
#include <qvcl/execcomp.h>
#include <qvcl/file.h>
#include <qvcl/layouts.h>
#include <qvcl/log.h>
#include <qvcl/loop.h>
#include <qvcl/main.h>
#include <qvcl/main_table.h>
#include <qvcl/memory.h>
#include <qvcl/message.h>
#include <qvcl/queue.h>
#include <qvcl/server.h>
#include <qvcl/shm.h>
#include <qvcl/steps.h>
#include <qvcl/system.h>
#include <qvcl/thread.h>
#include <qvcl/timer.h>
#include <qvcl/trace.h>
#include <qvcl/userfd.h>

#endif
