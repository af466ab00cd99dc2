#include <iostream>
#include <span>

#include "core/platform/file.h"
#include "tools/prt_command.h"

int main(int argc, char** argv) {
  nvo::platform::install_termination_cleanup();
  const int code =
      nvo::run_prt_command(std::span(argv, static_cast<std::size_t>(argc)), std::cout, std::cerr);
  if (std::cout.flush()) return code;
  std::cerr << "nvo_prt: cannot write to standard output\n";
  return nvo::kPrtExitFailure;
}
