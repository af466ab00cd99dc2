#include "core/thread_shortage.h"

#include "core/log.h"

namespace nvo {

void warn_of_thread_shortage(const std::system_error& error) {
  log_warn("The system gives the job no more threads (", error.code().message(),
           "); it goes on with those that it has, more slowly, and prints the same");
}

}  // namespace nvo
