// What a scenario's steps do with the files, the wire, the PPT server, the board and the station.
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <numeric>
#include <random>
#include <sstream>
#include <utility>

#include "bench/run.h"

namespace {

namespace fs = std::filesystem;

constexpr char kProtocols[] = "/etc/protocols";
constexpr double kPatienceSeconds = 10;         // for what is to happen at once
constexpr double kForwardingSeconds = 0.2;      // for what is on its way to the PPT server to be heard there
constexpr std::mt19937::result_type kSeed = 1;  // of the files' bytes
// What it says last before it takes requests: one of these begins a line.
constexpr const char* kStationServes[] = {"Message Sender initialized. ",
                                          "Error: Failed to initialize sender"};

// How many letters must be changed, added or taken away to make one text of the other.
std::size_t distance(const std::string& one, const std::string& other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < one.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < other.size(); ++j) {
      const std::size_t changed = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

std::string after_first_word(const std::string& text) {
  return text.substr(text.find_first_of(" \t") + 1);
}

// In the mounts of this process, which are its own.
void empty_file(const std::string& name) {
  if (mount("/dev/null", name.c_str(), nullptr, MS_BIND, nullptr) != 0)
    throw StepFailed(name + ": " + std::strerror(errno));
}

// The calling process, which is about to become the station.
void confine(const std::vector<int>& rights_taken, int most_descriptors) {
  for (const int right : rights_taken) prctl(PR_CAPBSET_DROP, right, 0, 0, 0);
  const auto most = static_cast<rlim_t>(most_descriptors);
  const rlimit limit = {most, most};
  if (most_descriptors == 0) return;
  close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);  // what the bench was given by its caller
  setrlimit(RLIMIT_NOFILE, &limit);
}

// The daemon, where something else has begun it in the station's place; 0: nothing has.
pid_t station_program_process() {
  constexpr char kProgram[] = "TFTP";
  for (const fs::directory_entry& it : fs::directory_iterator("/proc")) {
    std::error_code error;
    const pid_t pid = std::atoi(it.path().filename().c_str());
    if (pid > 0 && fs::read_symlink(it.path() / "exe", error).filename() == kProgram) return pid;
  }
  return 0;
}

std::ofstream opened(const std::string& name, const std::string& path) {
  if (name.find('/') != std::string::npos) throw StepFailed("it would be elsewhere; expected a plain name");
  std::ofstream out(path, std::ios::binary);
  if (!out) throw StepFailed("it cannot be written; expected a plain name");
  return out;
}

}  // namespace

void Run::serve_text(const std::string& name, const std::string& text) const {
  opened(name, served(name)) << text;
}

void Run::serve_file(const std::string& name, const std::string& from) const {
  const fs::path path = fs::path(scenario_.folder) / from;
  std::ifstream in(path, std::ios::binary);
  if (!in || !fs::is_regular_file(path)) throw StepFailed("there is no file " + path.string());
  std::ofstream out = opened(name, served(name));
  if (in.peek() != std::ifstream::traits_type::eof()) out << in.rdbuf();
}

void Run::serve_random_bytes(const std::string& name, double size) const {
  std::ofstream out = opened(name, served(name));
  std::mt19937 random(kSeed);
  for (auto left = static_cast<std::uint64_t>(size); left > 0; --left)
    out.put(static_cast<char>(random() & 0xFF));
}

void Run::order_wire(const Step& step, std::vector<Order> orders) {
  const Network& network = neighbours().network;
  const bool is_of_ppt = step.text.rfind("ppt", 0) == 0;
  timeline_.log("wire", is_of_ppt ? step.text : after_first_word(step.text));
  for (Order& order : orders) {
    if (is_of_ppt) order.link = Network::kPptLink;
    network.order_wire(order);
  }
}

PptServer& Run::ppt_server(const Step& step) {
  PptServer& server = neighbours().ppt_server;
  timeline_.log("ppt", after_first_word(step.text));
  return server;
}

bool Run::has_happened(const PptServer::Event& event) const {
  return std::count(ppt_events_.begin(), ppt_events_.end(), event) != 0;
}

void Run::expect_of_ppt(const PptServer::Event& event) {
  neighbours();
  if (!until(kPatienceSeconds, [&] { return has_happened(event); }))
    throw StepFailed("the PPT server has not " + event.in_words());
}

void Run::expect_ppt_not_to_have_heard(const std::string& name) {
  if (until(kForwardingSeconds, [&] { return has_happened({PptServer::Event::Kind::kHeard, name}); }))
    throw StepFailed("it has");
}

void Run::expect_no_network_yet() const {
  if (neighbours_) throw StepFailed("the link is there already; expected this step before anything starts");
}

void Run::seed_wire(std::uint64_t seed) {
  expect_no_network_yet();
  wire_seed_ = seed;
}

void Run::name_link(const std::string& name) {
  expect_no_network_yet();
  station_link_.name = name;
}

void Run::move_station(const std::string& address) {
  expect_no_network_yet();
  station_link_.address = address;
}

void Run::take_broadcast_address() {
  expect_no_network_yet();
  station_link_.has_broadcast_address = false;
}

void Run::take_link_down() {
  timeline_.log("board", station_link_.name + " is down");
  ip(neighbours().network.station, "link set " + station_link_.name + " down");
}

Network& Run::network_of_ppt(const Step& step) {
  timeline_.log("ppt", step.text);
  return neighbours().network;
}

void Run::set_variable(const std::string& name, const std::string& value) const {
  board_.sets_variable(name, value);
}

void Run::set_tool_status(int status) const {
  board_.ends_with(Board::kT1E1, status);
}

void Run::hold_tool() const {
  board_.holds(Board::kT1E1);
}

void Run::release_tool() const {
  board_.releases(Board::kT1E1);
}

void Run::remove_tool(const std::string& name) const {
  for (const char* const tool : {Board::kEnvtool, Board::kVoice, Board::kT1E1}) {
    if (name == tool) return board_.removes(name);
  }
  if (name == kProtocols) return empty_file(name);
  throw StepFailed(
      "it has no such thing; expected envtool, /etc/init.d/voice, /mnt/ramdisk/t1-e1 or /etc/protocols");
}

void Run::take_port(int kind, int port) {
  taken_ports_.push_back(std::make_unique<TakenPort>(neighbours().network.station, kind, port));
}

void Run::take_right(int capability) {
  rights_taken_.push_back(capability);
}

void Run::limit_descriptors(int most) {
  most_descriptors_ = most;
}

void Run::expect_no_call() const {
  const std::vector<std::string> calls = board_.calls();
  if (!calls.empty()) throw StepFailed("the board ran " + calls.front());
}

void Run::expect_call(const std::string& command) {
  const auto has_run = [&] {
    const std::vector<std::string> calls = board_.calls();
    return std::count(calls.begin(), calls.end(), command) != 0;
  };
  if (!until(kPatienceSeconds, has_run)) throw StepFailed("the board did not");
}

void Run::expect_variable(const std::string& name, const std::string& value) {
  if (!until(kPatienceSeconds, [&] { return board_.variable(name) == value; }))
    throw StepFailed("it keeps " + board_.variable(name));
}

void Run::start_station(const std::string& more_arguments) {
  if (station_) throw StepFailed("it has started already");
  std::vector<std::string> arguments = {station_program_, "-o", station_link_.address};
  std::istringstream words(more_arguments);
  for (std::string word; words >> word;) arguments.push_back(word);
  station_options_ = read_station_options({arguments.begin() + 1, arguments.end()});
  neighbours().network.move_ppt_server(station_options_.ppt_ip);
  neighbours().ppt_server.move_to(station_options_.ppt_port, station_options_.message_port);
  station_command_ = "TFTP";
  for (std::size_t i = 1; i < arguments.size(); ++i) station_command_ += " " + arguments[i];
  timeline_.log("station", station_command_);
  station_ = std::make_unique<Process>(arguments, [this] {
    append_errors_to(folder_ + kErrors);
    confine(rights_taken_, most_descriptors_);
    setenv("PATH", board_.path().c_str(), 1);
    fs::current_path(folder_ + "/served");
  });
  if (!until(kPatienceSeconds, [&] { return station_end_ || serves(); }))
    throw StepFailed("the station does not serve");
  board_.forgets_calls();  // what looked at the board before
  board_calls_shown_ = 0;
}

bool Run::serves() const {
  return std::any_of(station_lines_.begin(), station_lines_.end(), [](const TimedLine& said) {
    return std::any_of(std::begin(kStationServes), std::end(kStationServes),
                       [&said](const char* beginning) { return said.text.rfind(beginning, 0) == 0; });
  });
}

bool Run::has_said(const std::string& line) const {
  return std::any_of(station_lines_.begin(), station_lines_.end(),
                     [&line](const TimedLine& said) { return said.text == line; });
}

void Run::expect_line(const std::string& line) {
  if (until(kPatienceSeconds, [&] { return has_said(line); })) return;
  const auto nearest = std::min_element(station_lines_.begin(), station_lines_.end(),
                                        [&line](const auto& one, const auto& other) {
                                          return distance(line, one.text) < distance(line, other.text);
                                        });
  throw StepFailed("the station did not; " + (nearest == station_lines_.end()
                                                  ? "it has said nothing"
                                                  : "the nearest that it said: \"" + nearest->text + "\""));
}

void Run::signal_station(const std::string& name, int number) const {
  expect_started();
  timeline_.log("station", "gets " + name);
  const pid_t program = number == SIGINT || number == SIGTERM ? 0 : station_program_process();
  program != 0 ? static_cast<void>(kill(program, number)) : station_->send_signal(number);
}

void Run::expect_started() const {
  if (!station_) throw StepFailed("it never started; expected \"station starts\" before");
}

void Run::expect_exit(int status, double seconds) {
  expect_started();
  if (!until(seconds, [&] { return station_end_.has_value(); })) throw StepFailed("the station still runs");
  if (station_end_->shell_status() != status)
    throw StepFailed("its exit status is " + std::to_string(station_end_->shell_status()));
}
