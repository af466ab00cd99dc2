#include <exception>
#include <iostream>
#include <span>

#include "core/machine_failure.h"
#include "core/platform/file.h"
#include "core/platform/last_resort.h"
#include "core/platform/terminal.h"
#include "tools/prt_command.h"

int main(int argc, char** argv) {
  nvo::platform::open_standard_streams();
  nvo::platform::install_last_resort();
  nvo::platform::install_termination_cleanup();
  try {
    const int code =
        nvo::run_prt_command(std::span(argv, static_cast<std::size_t>(argc)), std::cout, std::cerr);
    if (std::cout.flush()) return code;
    nvo::platform::write_error_line("nvo_prt: ", "cannot write to standard output");
  } catch (const std::exception& failure) {
    nvo::platform::write_error_line("nvo_prt: ", nvo::failure_text(failure));
  }
  return nvo::kPrtExitFailure;
}
