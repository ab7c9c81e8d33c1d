// Every step that a scenario can say, and what it does.
#include <sys/socket.h>

#include "bench/run.h"
#include "bench/scenario.h"

namespace {

using What = Order::What;
using Event = PptServer::Event;

std::optional<int> whole_number(const Step& step, const char* word) {
  return step.has(word) ? std::optional(static_cast<int>(step.number_of(word))) : std::nullopt;
}

ReadOptions read_options(const Step& step) {
  ReadOptions options;
  options.block_size = whole_number(step, "BLOCK");
  options.timeout_seconds = whole_number(step, "TIMEOUT");
  if (step.has("PATIENCE"))
    options.patience = {static_cast<int>(step.number_of("TIMES")), step.number_of("PATIENCE")};
  options.tries = static_cast<int>(step.number_of("TRIES", options.tries));
  options.longest_seconds = step.number_of("SECONDS", options.longest_seconds);
  if (step.has("SIZE")) options.dies_after = step.bytes();
  return options;
}

// A frame by what it carries.
void lose(Run& run, const Step& step, What what) {
  Order order{what, step.number_of("NUMBER")};
  order.times = static_cast<int>(step.number_of("TIMES", order.times));
  if (step.text_of("NAME").size() >= Order::kNameBytes)
    throw StepFailed("expected a name of less than " + std::to_string(Order::kNameBytes) + " bytes");
  step.text_of("NAME").copy(order.name, Order::kNameBytes - 1);
  run.order_wire(step, {order});
}

}  // namespace

const std::vector<Command>& commands() {
  static const std::vector<Command> kCommands = {
      {"file NAME holds TEXT",
       [](Run& run, const Step& step) { run.serve_text(step.text_of("NAME"), step.text_of("TEXT")); }},
      {"file NAME comes from FILE",
       [](Run& run, const Step& step) { run.serve_file(step.text_of("NAME"), step.text_of("FILE")); }},
      {"file NAME is SIZE UNIT",
       [](Run& run, const Step& step) { run.serve_random_bytes(step.text_of("NAME"), step.bytes()); }},
      {"wire damages by seed SEED",
       [](Run& run, const Step& step) { run.seed_wire(static_cast<std::uint64_t>(step.number_of("SEED"))); }},
      {"[ppt] wire loses PERCENT %",
       [](Run& run, const Step& step) {
         run.order_wire(step, {{What::kLose, step.number_of("PERCENT")}});
       }},
      {"[ppt] wire duplicates PERCENT %",
       [](Run& run, const Step& step) {
         run.order_wire(step, {{What::kDuplicate, step.number_of("PERCENT")}});
       }},
      {"[ppt] wire swaps PERCENT %",
       [](Run& run, const Step& step) {
         run.order_wire(step, {{What::kSwap, step.number_of("PERCENT")}});
       }},
      {"[ppt] wire delays MILLISECONDS ms",
       [](Run& run, const Step& step) {
         run.order_wire(step, {{What::kDelay, step.number_of("MILLISECONDS")}});
       }},
      {"[ppt] wire is cut for SECONDS s",
       [](Run& run, const Step& step) {
         run.order_wire(step, {{What::kCut, step.number_of("SECONDS")}});
       }},
      {"[ppt] wire is whole",
       [](Run& run, const Step& step) {
         run.order_wire(step, {{What::kDuplicate, 0}, {What::kSwap, 0}, {What::kDelay, 0}, {What::kLose, 0}, {What::kLoseNoMore}});
       }},
      {"[ppt] wire loses block NUMBER of NAME [TIMES times]",
       [](Run& run, const Step& step) { lose(run, step, What::kLoseBlock); }},
      {"[ppt] wire loses ACK NUMBER of NAME [TIMES times]",
       [](Run& run, const Step& step) { lose(run, step, What::kLoseAck); }},
      {"[ppt] wire loses the answer to NAME [TIMES times]",
       [](Run& run, const Step& step) { lose(run, step, What::kLoseAnswer); }},
      {"[ppt] wire loses the request of NAME [TIMES times]",
       [](Run& run, const Step& step) { lose(run, step, What::kLoseRequest); }},
      {"ppt answers after SECONDS s",
       [](Run& run, const Step& step) { run.ppt_server(step).answer(step.number_of("SECONDS")); }},
      {"ppt answers nothing", [](Run& run, const Step& step) { run.ppt_server(step).answer_nothing(); }},
      {"ppt is silent", [](Run& run, const Step& step) { run.ppt_server(step).keep_silent(); }},
      {"ppt refuses", [](Run& run, const Step& step) { run.ppt_server(step).refuse(); }},
      {"ppt refuses verdicts", [](Run& run, const Step& step) { run.ppt_server(step).refuse_requests(); }},
      {"ppt is absent", [](Run& run, const Step& step) { run.network_of_ppt(step).remove_ppt_server(); }},
      {"ppt is cut off",
       [](Run& run, const Step& step) { run.network_of_ppt(step).drop_what_ppt_server_gets(); }},
      {"ppt is back", [](Run& run, const Step& step) { run.network_of_ppt(step).restore_ppt_server(); }},
      {"ppt is forbidden", [](Run& run, const Step& step) { run.network_of_ppt(step).forbid_ppt_server(); }},
      {"ppt answers [ERROR CODE TEXT]",
       [](Run& run, const Step& step) {
         PptServer& server = run.ppt_server(step);
         if (!step.has("CODE")) return server.answer();
         server.answer_error(static_cast<int>(step.number_of("CODE")), step.text_of("TEXT"));
       }},
      {"ppt hears NAME",
       [](Run& run, const Step& step) {
         run.expect_of_ppt({Event::Kind::kHeard, step.text_of("NAME")});
       }},
      {"ppt has not heard NAME",
       [](Run& run, const Step& step) { run.expect_ppt_not_to_have_heard(step.text_of("NAME")); }},
      {"ppt is connected",
       [](Run& run, const Step&) {
         run.expect_of_ppt({Event::Kind::kConnected, ""});
       }},
      {"ppt receives TEXT",
       [](Run& run, const Step& step) {
         run.expect_of_ppt({Event::Kind::kReceived, step.text_of("TEXT")});
       }},
      {"board link is called NAME", [](Run& run, const Step& step) { run.name_link(step.text_of("NAME")); }},
      {"board link has no broadcast address", [](Run& run, const Step&) { run.take_broadcast_address(); }},
      {"board link is down", [](Run& run, const Step&) { run.take_link_down(); }},
      {"board address is ADDRESS",
       [](Run& run, const Step& step) { run.move_station(step.text_of("ADDRESS")); }},
      {"board has NAME TEXT",
       [](Run& run, const Step& step) { run.set_variable(step.text_of("NAME"), step.text_of("TEXT")); }},
      {"board tool exits STATUS",
       [](Run& run, const Step& step) { run.set_tool_status(static_cast<int>(step.number_of("STATUS"))); }},
      {"board tool hangs", [](Run& run, const Step&) { run.hold_tool(); }},
      {"board tool goes on", [](Run& run, const Step&) { run.release_tool(); }},
      {"board lacks NAME", [](Run& run, const Step& step) { run.remove_tool(step.text_of("NAME")); }},
      {"board has port PORT taken",
       [](Run& run, const Step& step) {
         run.take_port(SOCK_DGRAM, static_cast<int>(step.number_of("PORT")));
       }},
      {"board has TCP port PORT taken",
       [](Run& run, const Step& step) {
         run.take_port(SOCK_STREAM, static_cast<int>(step.number_of("PORT")));
       }},
      {"board ran nothing", [](Run& run, const Step&) { run.expect_no_call(); }},
      {"board ran TEXT", [](Run& run, const Step& step) { run.expect_call(step.text_of("TEXT")); }},
      {"board keeps NAME TEXT",
       [](Run& run, const Step& step) { run.expect_variable(step.text_of("NAME"), step.text_of("TEXT")); }},
      {"station lacks RIGHT", [](Run& run, const Step& step) { run.take_right(step.right()); }},
      {"station has COUNT descriptors",
       [](Run& run, const Step& step) { run.limit_descriptors(static_cast<int>(step.number_of("COUNT"))); }},
      {"station starts [with TEXT]",
       [](Run& run, const Step& step) { run.start_station(step.has("TEXT") ? step.text_of("TEXT") : ""); }},
      {"station says TEXT", [](Run& run, const Step& step) { run.expect_line(step.text_of("TEXT")); }},
      {"station gets SIGNAL",
       [](Run& run, const Step& step) { run.signal_station(step.text_of("SIGNAL"), step.signal()); }},
      {"station exits STATUS [within SECONDS s]",
       [](Run& run, const Step& step) {
         run.expect_exit(static_cast<int>(step.number_of("STATUS")),
                         step.number_of("SECONDS", Run::kExitSeconds));
       }},
      {"unit is like HABIT", [](Run& run, const Step& step) { run.take_habit(step.text_of("HABIT")); }},
      {"unit crashes", [](Run& run, const Step&) { run.crash(); }},
      {"unit boots again", [](Run& run, const Step&) { run.boot_again(); }},
      {"unit hears the boot script", [](Run& run, const Step&) { run.hear_script(); }},
      {"unit hears nothing for SECONDS s",
       [](Run& run, const Step& step) { run.hear_nothing(step.number_of("SECONDS")); }},
      {"unit obeys the boot script [timeout TIMEOUT] [tries TRIES] [within SECONDS s]",
       [](Run& run, const Step& step) { run.obey_heard_script(read_options(step)); }},
      {"unit reads NAME [blksize BLOCK] [timeout TIMEOUT] [repeats TIMES times after PATIENCE s] [tries TRIES] "
       "[within SECONDS s] [dies after SIZE UNIT]",
       [](Run& run, const Step& step) {
         const ReadOptions options = read_options(step);
         options.dies_after ? run.read_until_death(step.text_of("NAME"), options)
                            : run.read(step.text_of("NAME"), options);
       }},
      {"unit cannot read NAME [blksize BLOCK] [timeout TIMEOUT] [repeats TIMES times after PATIENCE s]",
       [](Run& run, const Step& step) { run.fail_to_read(step.text_of("NAME"), read_options(step)); }},
      {"unit begins reading NAME [blksize BLOCK] [timeout TIMEOUT] [repeats TIMES times after PATIENCE s]",
       [](Run& run, const Step& step) { run.begin_reading(step.text_of("NAME"), read_options(step)); }},
      {"unit has read SIZE UNIT", [](Run& run, const Step& step) { run.expect_read(step.bytes()); }},
      {"unit ends reading in vain", [](Run& run, const Step&) { run.fail_to_end_reading(); }},
      {"unit ends reading", [](Run& run, const Step&) { run.end_reading(); }},
      {"unit gives up NAME blksize BLOCK [after COUNT blocks]",
       [](Run& run, const Step& step) {
         run.give_up(step.text_of("NAME"), static_cast<int>(step.number_of("BLOCK")),
                     static_cast<int>(step.number_of("COUNT")));
       }},
      {"unit is refused NAME [in mode MODE]",
       [](Run& run, const Step& step) {
         run.expect_refusal(step.text_of("NAME"), step.has("MODE") ? step.text_of("MODE") : "octet");
       }},
      {"unit repeats NAME TIMES times",
       [](Run& run, const Step& step) {
         run.repeat(step.text_of("NAME"), static_cast<int>(step.number_of("TIMES")));
       }},
      {"unit writes NAME", [](Run& run, const Step& step) { run.write(step.text_of("NAME")); }},
      {"unit asks TEXT in vain", [](Run& run, const Step& step) { run.ask_in_vain(step.text_of("TEXT")); }},
      {"unit asks TEXT and leaves",
       [](Run& run, const Step& step) {
         run.ask_and_leave(step.text_of("TEXT"), Unit::Leaves::kAfterItsTexts);
       }},
      {"unit asks TEXT and breaks off",
       [](Run& run, const Step& step) { run.ask_and_leave(step.text_of("TEXT"), Unit::Leaves::kAtOnce); }},
      {"unit asks TEXT expects REPLY and holds on",
       [](Run& run, const Step& step) { run.ask(step.text_of("TEXT"), step.text_of("REPLY"), true); }},
      {"unit asks on TEXT expects REPLY",
       [](Run& run, const Step& step) { run.ask_on(step.text_of("TEXT"), step.text_of("REPLY")); }},
      {"unit is told REPLY", [](Run& run, const Step& step) { run.ask_on("", step.text_of("REPLY")); }},
      {"unit hangs up", [](Run& run, const Step&) { run.hang_up(); }},
      {"unit asks TEXT expects REPLY",
       [](Run& run, const Step& step) { run.ask(step.text_of("TEXT"), step.text_of("REPLY")); }},
      {"unit sends bytes HEX [to port PORT]",
       [](Run& run, const Step& step) {
         run.send(step.bytes_of("HEX"), static_cast<int>(step.number_of("PORT", PptServer::kRelayPort)));
       }},
      {"unit sends TEXT [to port PORT]",
       [](Run& run, const Step& step) {
         run.send(step.text_of("TEXT"), static_cast<int>(step.number_of("PORT", PptServer::kRelayPort)));
       }},
      {"also seen is CAUSE", [](Run& run, const Step& step) { run.expect_also(step.text_of("CAUSE")); }},
      {"fault is OWNER [by CAUSE]",
       [](Run& run, const Step& step) {
         run.expect_fault(step.text_of("OWNER"), step.has("CAUSE") ? step.text_of("CAUSE") : "");
       }},
      {"bench waits SECONDS s", [](Run& run, const Step& step) { run.wait(step.number_of("SECONDS")); }},
  };
  return kCommands;
}
