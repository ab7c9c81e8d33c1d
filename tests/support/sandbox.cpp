#include "support/sandbox.h"

#include <optional>
#include <string>

#include "stage/network_namespace.h"

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

}  // namespace sandbox
