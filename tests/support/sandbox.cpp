#include "support/sandbox.h"

#include <optional>
#include <stdexcept>

#include "stage/network_namespace.h"
#include "stage/process.h"

namespace sandbox {
namespace {

std::optional<std::string> why_not = "never tried";

}  // namespace

void enter() {
  try {
    enter_private_namespaces();
    why_not.reset();
  } catch (const NotAllowed& error) {
    why_not = error.what();
  }
}

bool entered() {
  return !why_not;
}

std::string refusal() {
  return why_not.value_or("");
}

void run(const std::string& command_line) {
  Process process({"/bin/sh", "-c", "exec 2>&1; " + command_line});
  const std::optional<ProcessEnd> end = process.wait_for_end();
  if (!end || !end->succeeded()) throw std::runtime_error(command_line + ": " + process.read_text());
}

}  // namespace sandbox
