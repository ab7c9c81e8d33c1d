#ifndef CHECK_LOOKS_H
#define CHECK_LOOKS_H

#include <string>

#include "check/check.h"

// How each point is looked at; points.cpp has them in order.
namespace check {

inline Finding ok(std::string text = "") {
  return {State::kOk, std::move(text)};
}
inline Finding not_known(std::string text) {
  return {State::kNotKnown, std::move(text)};
}
inline Finding wrong(std::string text) {
  return {State::kWrong, std::move(text)};
}

// network.cpp
Finding look_at_link(const Setup& setup);
Finding look_at_link_up(const Setup& setup);
Finding look_at_carrier(const Setup& setup);
Finding look_at_label(const Setup& setup);
Finding look_at_fixed_address(const Setup& setup);
Finding look_at_broadcast_address(const Setup& setup);
Finding look_at_protocols(const Setup& setup);
Finding look_at_served_address(const Setup& setup);
// Of lan0:0; empty: it has none.
std::string broadcast_address();

// rights.cpp
Finding look_at_right_to_raw(const Setup& setup);
Finding look_at_right_to_low_ports(const Setup& setup);

// ports.cpp
Finding look_at_tftp_port(const Setup& setup);
Finding look_at_relay_port(const Setup& setup);
Finding look_at_boot_script_port(const Setup& setup);
Finding look_at_command_port(const Setup& setup);

// files.cpp
Finding look_at_folder(const Setup& setup);
Finding look_at_boot_script(const Setup& setup);
Finding look_at_files(const Setup& setup);

// board.cpp
Finding look_at_run(const Setup& setup);
Finding look_at_envtool(const Setup& setup);
Finding look_at_temporary_mac(const Setup& setup);
Finding look_at_flag(const Setup& setup);
Finding look_at_voice_script(const Setup& setup);
Finding look_at_tool(const Setup& setup);
Finding look_at_time(const Setup& setup);

// ppt_server.cpp
Finding look_at_route(const Setup& setup);
Finding look_at_ppt_server(const Setup& setup);

}  // namespace check

#endif
