#include "wire/wire_process.h"

#include <poll.h>
#include <unistd.h>

#include <stdexcept>

namespace {

constexpr int kPatienceMilliseconds = 10000;

}  // namespace

WireProcess::WireProcess(const std::string& record, std::uint64_t seed,
                         const std::vector<Wire::Ends>& links) {
  Wire wire(record, seed, links);
  process_ = std::make_unique<Process>([&wire] {
    wire.run(STDIN_FILENO, STDOUT_FILENO);
    return 0;
  });
}

WireProcess::~WireProcess() {
  process_->close_input();
  process_->wait_for_end();
}

void WireProcess::order(const Order& order) const {
  pollfd answered = {process_->output(), POLLIN, 0};
  if (!process_->write_text({reinterpret_cast<const char*>(&order), sizeof order}) ||
      poll(&answered, 1, kPatienceMilliseconds) != 1 || process_->read_text().empty())
    throw std::runtime_error("the wire does not follow");
}
