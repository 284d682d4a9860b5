// qvcl for C++20: the library's loop with tasks, everything that has a handle as an object, errors
// as values. All of it; the headers in cpp/ can be included one by one.
#pragma once

#include <qvcl/cpp/callback.hpp>
#include <qvcl/cpp/channel.hpp>
#include <qvcl/cpp/conf.hpp>
#include <qvcl/cpp/descriptor.hpp>
#include <qvcl/cpp/file.hpp>
#include <qvcl/cpp/location.hpp>
#include <qvcl/cpp/log.hpp>
#include <qvcl/cpp/memory.hpp>
#include <qvcl/cpp/message.hpp>
#include <qvcl/cpp/process.hpp>
#include <qvcl/cpp/result.hpp>
#include <qvcl/cpp/runtime.hpp>
#include <qvcl/cpp/shm.hpp>
#include <qvcl/cpp/task.hpp>
#include <qvcl/cpp/time.hpp>
#include <qvcl/cpp/trace.hpp>
