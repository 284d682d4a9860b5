// One run of a program under the preloaded stand-ins.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "kit/page.h"

namespace kit {

// A page that the run's processes find by the path, as long as this process lives.
class SharedPage {
  public:
    SharedPage();
    ~SharedPage();
    SharedPage(const SharedPage &) = delete;
    SharedPage &operator=(const SharedPage &) = delete;
    Page *operator->() const { return page_; }
    Page &operator*() const { return *page_; }

    // In the process that is to be the program: sets the environment and becomes it. Returns only
    // when that fails.
    void become(const std::vector<std::string> &command) const;

  private:
    int fd_;
    Page *page_;
    std::string path_;
};

// The preloaded object, beside this program or where it is installed. Throws when there is none.
std::string preloaded_object();

// "ECONNRESET" or a number; 0 for anything else.
int error_named(const std::string &name);
std::string name_of_error(int error);

// Runs a command under the page, passes signals on to it, and returns its exit status.
int run_to_end(const SharedPage &shared, const std::vector<std::string> &command);
int run_command(const std::vector<std::string> &arguments);
int sweep_command(const std::vector<std::string> &arguments);

// Of the command line. what: for the message that is thrown.
uint64_t number(const std::string &text, const std::string &what);
bool option(const std::string &argument, const std::string &name, std::string &value);
// The program with its arguments, behind the options of a verb, each of which `take` knows, or not.
std::vector<std::string> command_of(const std::vector<std::string> &arguments,
                                    const std::string &verb,
                                    const std::function<bool(const std::string &)> &take);

}  // namespace kit
