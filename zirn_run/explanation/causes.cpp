#include "explanation/causes.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace explanation {

namespace {

struct OwnerWords {
  Owner owner;
  std::string_view name;
  std::string_view words;
};
constexpr OwnerWords kOwners[] = {{Owner::kNone, "none", "none"},
                                  {Owner::kUnit, "unit", "unit"},
                                  {Owner::kTestNetwork, "test-network", "test network"},
                                  {Owner::kPptServer, "ppt-server", "PPT server"},
                                  {Owner::kBoard, "board", "board"},
                                  {Owner::kStation, "station", "station"},
                                  {Owner::kOperator, "operator", "operator"},
                                  {Owner::kUnknown, "unknown", "unknown"}};

const OwnerWords& of(Owner owner) {
  return *std::find_if(std::begin(kOwners), std::end(kOwners),
                       [owner](const OwnerWords& words) { return words.owner == owner; });
}

constexpr std::string_view kDescriptors =
    "End the program that uses up the system's sockets and files (lsof), or raise the limit (ulimit -n). "
    "Then begin a new run.";

}  // namespace

std::string_view name_of(Owner owner) {
  return of(owner).name;
}

std::string_view words_for(Owner owner) {
  return of(owner).words;
}

std::string filled(std::string_view text, const Words& words) {
  std::string told;
  while (true) {
    const std::size_t open = text.find('{');
    told += text.substr(0, open);
    if (open == std::string_view::npos) return told;
    const std::size_t colon = text.find(':', open), close = text.find('}', open);
    const auto known = words.find(text.substr(open + 1, colon - open - 1));
    const std::string word =
        known != words.end() ? known->second : std::string(text.substr(colon + 1, close - colon - 1));
    told += word;
    text.remove_prefix(close + 1);
    if (word.empty() && text.substr(0, 1) == " ") text.remove_prefix(1);
  }
}

std::string_view name_of(Weight weight) {
  switch (weight) {
    case Weight::kDecides:
      return "decides";
    case Weight::kExplains:
      return "explains";
    case Weight::kEnds:
      return "ends";
    case Weight::kAlso:
      return "also";
    case Weight::kNoFault:
      break;
  }
  return "no-fault";
}

const std::vector<Cause>& causes() {
  using O = Owner;
  using W = Weight;
  static const std::vector<Cause> kCauses = {
      // The run could not begin, or was ended by what happened in it.
      {"start.port-in-use", O::kStation, W::kDecides,
       "Another program already has the station's TFTP port; usually it is a run that has not ended.",
       "On the station, as root: ss -ulpn shows which program has UDP port {tftp-port:69}. End it if it is a "
       "run of the station (systemctl stop zirn-test-station); else ask whoever looks after the station "
       "before you do. Then begin a new run."},
      {"start.no-address", O::kStation, W::kDecides,
       "The station was told to serve on an address (-o) that none of its links has.",
       "Compare -o with what \"ip address\" shows: correct -o, or give the link the address. Then begin a "
       "new run."},
      {"start.no-right", O::kStation, W::kDecides,
       "The station's program was started without the right to use its TFTP port.",
       "Start it as root, or with the right CAP_NET_BIND_SERVICE. Then begin a new run."},
      {"start.no-port", O::kStation, W::kDecides,
       "The station could not take its TFTP port; its line says why.",
       "Mend what the line names; zirn-run check on the station may say more. Then begin a new run."},
      {"start.no-socket", O::kStation, W::kDecides,
       "The station's system had no network socket left for the run.", kDescriptors},
      {"start.no-memory", O::kStation, W::kDecides,
       "The station's system had no memory left when the program started.",
       "See what takes the memory (top), and end it. Then begin a new run."},
      {"start.no-server", O::kOperator, W::kDecides,
       "The station was started with an empty address of the PPT server (-s).",
       "Give -s the PPT server's address, or leave -s out (TFTP_OPTIONS= in /etc/default/zirn-test-station). "
       "Then begin a new run."},
      {"verdict.too-short", O::kUnit, W::kDecides,
       "The unit gave a verdict whose name is shorter than eight characters, which ends the station's "
       "program at once.",
       "Ask whoever writes the unit's test script to correct it: at least two characters must follow F_l_m_ "
       "in a verdict. Then begin a new run."},
      {"command.left-early", O::kUnit, W::kDecides,
       "The unit closed its command connection before the station had answered, which ended the station's "
       "program.",
       "Ask whoever writes the unit's test script to let it wait for the answer; see whether a tool of the "
       "board takes too long. Then begin a new run."},
      // No boot script.
      {"boot.no-right", O::kStation, W::kExplains,
       "The unit gets no boot script: the station's program was started without the right to look at its "
       "link.",
       "Start it as root, or with the right CAP_NET_RAW. Then begin a new run."},
      {"boot.no-link", O::kStation, W::kExplains,
       "The unit gets no boot script: no link of the station has an address with the label lan0:0.",
       "On the station, as root: ip address add 172.40.0.1/24 broadcast 172.40.0.255 label lan0:0 dev lan0. "
       "If it has no lan0, ask whoever looks after the station. Then begin a new run."},
      {"boot.no-protocols", O::kStation, W::kExplains,
       "The unit gets no boot script: /etc/protocols on the station has no udp.",
       "Install the package netbase on the station. Then begin a new run."},
      {"boot.link-down", O::kStation, W::kExplains,
       "The unit gets no boot script: the station's link lan0 is down.",
       "On the station, as root: ip link set lan0 up. Then begin a new run."},
      {"boot.port-in-use", O::kStation, W::kExplains,
       "The unit gets no boot script: another program already has the message port.",
       "On the station, as root: ss -ulpn shows which program has UDP port {port:12345}. End it if it is a "
       "run of the station; else ask whoever looks after the station before you do. Then begin a new run."},
      {"boot.no-broadcast", O::kStation, W::kExplains,
       "The unit gets no boot script: the station's lan0:0 has no broadcast address.",
       "Give it one: ip address change 172.40.0.1/24 broadcast 172.40.0.255 label lan0:0 dev lan0. If it has "
       "one, another program has UDP port {port:12345}: end the one that, as root, ss -ulpn shows. Then "
       "begin a new run."},
      {"boot.not-sent", O::kStation, W::kExplains,
       "The station could not send its boot script; its line says why.",
       "Look at the cable of lan0, and set the link up: ip link set lan0 up. Then begin a new run."},
      {"boot.no-socket", O::kStation, W::kExplains,
       "The unit gets no boot script: the station's system had no network socket left for it.", kDescriptors},
      {"boot.none", O::kStation, W::kExplains, "The unit gets no boot script, and the reason is not known.",
       "Run zirn-run check on the station, and mend what it calls WRONG. Then begin a new run."},
      {"boot.unanswered", O::kUnknown, W::kExplains,
       "The station sent its boot script, and no unit asked for anything.",
       "See whether a unit is connected and switched on, and whether its boot loader waits for a boot "
       "script; look at the cable. Then begin a new run."},
      // What the unit was told wrongly, or not given.
      {"board.tool-failed", O::kBoard, W::kExplains,
       "The board's T1/E1 tool failed (it ended with 0), and the unit was told so.",
       "On the station's board, as root, run \"{tool:/mnt/ramdisk/t1-e1}\" by hand; show what it prints to "
       "whoever looks after the board's T1/E1 hardware. Then begin a new run."},
      {"board.tool-missing", O::kBoard, W::kExplains,
       "A tool of the station's board is missing, and so the unit was answered wrongly.",
       "Ask whoever looks after the board to install {tool:the tool that the line names}. Then begin a new "
       "run."},
      {"board.tool-hangs", O::kBoard, W::kExplains,
       "A tool of the station's board was started for the unit, and did not come to its end.",
       "{end:End this run if it still goes on.} On the station's board, as root, run \"{tool:the tool}\" by "
       "hand. If it does not end, stop it with Ctrl-C, and show what it printed last to whoever looks after "
       "the board. Then begin a new run."},
      {"command.unanswered", O::kUnknown, W::kExplains,
       "The unit sent a command and got no answer; the record does not show why.",
       "Begin a new run, and record both networks and the station's lines (zirn-run record), so that it "
       "shows."},
      {"command.port-in-use", O::kStation, W::kExplains,
       "Another program already has the station's command port (TCP {port:12345}), and so the unit's "
       "commands are not answered.",
       "On the station, as root: ss -tlpn shows which program has TCP port {port:12345}. End it if it is a "
       "run of the station; else ask whoever looks after the station before you do. Then begin a new run."},
      {"command.no-address", O::kStation, W::kExplains,
       "The station does not have the address 172.40.0.1, and so it takes no commands.",
       "On the station, as root: ip address add 172.40.0.1/24 broadcast 172.40.0.255 label lan0:0 dev lan0. "
       "If it has no lan0, ask whoever looks after the station. Then begin a new run."},
      {"command.no-port", O::kStation, W::kExplains,
       "The station could not open its command port, and so it takes no commands; its line says why.",
       kDescriptors},
      {"command.too-early", O::kUnit, W::kExplains,
       "The unit sent a command before its first verdict; the station takes commands only after that.",
       "Ask whoever writes the unit's test script to correct it: first a verdict, then commands. Then begin "
       "a new run."},
      {"command.second", O::kUnit, W::kExplains,
       "The unit sent a command on a second connection while its first one was open; the station serves one "
       "at a time.",
       "Ask whoever writes the unit's test script to correct it: it closes each command connection before it "
       "opens the next. Then begin a new run."},
      {"command.refused", O::kUnknown, W::kExplains,
       "The station refused the unit's connection for commands; the record does not show why.",
       "Read what the station printed at the first verdict, and run zirn-run check on the station. Then "
       "begin a new run."},
      {"net.cable-out", O::kTestNetwork, W::kExplains, "The cable of the test network was out.",
       "Push the cable in at the station and at the unit; take another one if a plug does not hold. Then "
       "begin a new run."},
      {"net.read-broken", O::kTestNetwork, W::kExplains,
       "The unit could not finish a read, because frames were lost on the test network.",
       "Change the cable between unit and station; if that does not help, the port of the switch. Then begin "
       "a new run."},
      {"file.missing", O::kStation, W::kExplains,
       "The unit asked for a file that the station does not have, or may not read.",
       "Look into the station's directory (/var/lib/zirn-test-station): is {file:the file} there, under this "
       "very name, and may the station's program read it? If not, put it there. Then begin a new run."},
      {"file.wrong-mode", O::kUnit, W::kExplains,
       "The unit asked for a file in a transfer mode that the station does not serve; it serves octet alone.",
       "Set the unit's boot loader to the mode octet (binary). Then begin a new run."},
      {"file.no-name", O::kUnit, W::kExplains, "The unit asked for a file and gave no name.",
       "Ask whoever writes the unit's boot script to correct it: a line that loads a file lacks the name. "
       "Then begin a new run."},
      {"read.options-refused", O::kUnit, W::kExplains,
       "The unit's boot loader asked for transfer options, and gave up over what the station acknowledged.",
       "Set the boot loader to another block size, and to no options but blksize, timeout and tsize. Then "
       "begin a new run."},
      {"read.given-up", O::kUnit, W::kExplains, "The unit ended a read by itself, with an error message.",
       "Read the message; see whether the unit has room for the whole of {file:the file}. Then begin a new "
       "run."},
      {"unit.restarted", O::kUnit, W::kExplains,
       "The unit restarted in the middle of a read: later it read its boot script again.",
       "See on the unit's console why it restarted, and look at its power supply. Then begin a new run."},
      {"read.left", O::kUnit, W::kExplains,
       "The unit stopped in the middle of a read, and did something else later: it gave the read up, or it "
       "restarted.",
       "See on the unit's console what happened then. If it restarted, look at its power supply; if it "
       "printed an error, show that to whoever writes its boot script. Then begin a new run."},
      {"file.refused", O::kUnknown, W::kExplains,
       "The station refused a read of the unit with an error that is not usual.",
       "Read the message, and see that nobody stops the station's process (a debugger). Then begin a new "
       "run."},
      {"read.unanswered", O::kUnknown, W::kExplains,
       "The unit asked for a file, and the station did not answer.",
       "See whether the station's program still runs and is not stopped (systemctl status "
       "zirn-test-station); look at the cable. Then begin a new run."},
      {"unit.gone", O::kUnknown, W::kExplains,
       "The unit fell silent in the middle of a read and was not heard again: it is off, or its cable is "
       "out.",
       "Look at the unit's power, its console and its cable. Then begin a new run."},
      {"unit.failed", O::kUnit, W::kExplains,
       "The unit itself reports the failure, and nothing before explains it better.",
       "Put the unit aside as failed, with a note of {step:its verdict} for whoever repairs it. Begin a new "
       "run with the next unit."},
      {"ppt.refused", O::kPptServer, W::kExplains,
       "The PPT server refused the station's connection (TCP port {port:12345}); without it the station "
       "answers no commands of the unit.",
       "Ask whoever looks after the PPT server to start its program. Then begin a new run."},
      {"ppt.dropped", O::kPptServer, W::kExplains,
       "The PPT server did not answer when the station connected to its message port.",
       "On the station: ping {ppt:the PPT server}. Without an answer, see whether it is on and its cable is "
       "in; else a firewall drops the connection: ask whoever looks after the PPT server. Then begin a new "
       "run."},
      {"ppt.absent", O::kPptServer, W::kExplains, "No machine answers at the PPT server's address.",
       "See whether the PPT server is on and its cable is in, and whether {ppt:-s} is its address. Then "
       "begin a new run."},
      {"ppt.no-route", O::kStation, W::kExplains, "The station has no route to the PPT server's address.",
       "Compare {ppt:-s} with the PPT server's address; if it is right, give the station the route (ip route "
       "add). Then begin a new run."},
      {"ppt.not-connected", O::kUnknown, W::kExplains,
       "The station could not connect to the PPT server; its line says why.",
       "Mend what the line names: with Permission denied, a route or a firewall of the station's board. Then "
       "begin a new run."},
      {"ppt.closed", O::kPptServer, W::kExplains,
       "The PPT server's machine answers, but nothing listens for verdicts on its UDP port.",
       "Ask whoever looks after the PPT server to start its program; its UDP port is that of -p. Then begin "
       "a new run."},
      {"ppt.silent", O::kPptServer, W::kExplains,
       "The PPT server did not answer when the station forwarded a verdict.",
       "On the station: ping {ppt:the PPT server}. Without an answer, see whether it is on and its cable is "
       "in; else ask whoever looks after the PPT server whether its program runs. Then begin a new run."},
      {"ppt.late", O::kPptServer, W::kExplains,
       "The PPT server answered a verdict when the station no longer waited.",
       "Ask whoever looks after the PPT server what slows it down. Then begin a new run."},
      {"board.mac-default", O::kBoard, W::kExplains,
       "The unit was told the default MAC address, and none of its own: {no-mac:envtool is missing on the "
       "station's board, or knows no tempmac}.",
       "Ask whoever looks after the station's board to install envtool and to set its variable tempmac; "
       "until then every unit is told the same. Then begin a new run."},
      {"board.mac-empty", O::kBoard, W::kExplains,
       "The unit was told a MAC address that is none, because tempmac is empty on the board.",
       "Ask whoever looks after the board to set tempmac (envtool). Then begin a new run."},
      {"file.empty", O::kStation, W::kExplains, "The unit read a file that is empty on the station.",
       "Put the right {file:file} into the station's directory (/var/lib/zirn-test-station). Then begin a "
       "new run."},
      // Nothing hindered the verdict, and the run ended without it.
      {"end.timeout", O::kUnknown, W::kEnds,
       "The run took longer than it was given (zirn-run test --timeout), and was ended before the unit gave "
       "its final verdict.",
       "Look on the unit's console for what it waits for. If it was still at work, give the run more time "
       "(--timeout). Then begin a new run."},
      {"end.sigint", O::kOperator, W::kEnds,
       "The run was stopped from outside (SIGINT, Ctrl-C) before the unit gave its final verdict.",
       "Begin a new run, and let the unit come to its final verdict."},
      {"end.sigterm", O::kOperator, W::kEnds,
       "The run was stopped from outside (SIGTERM) before the unit gave its final verdict.",
       "Begin a new run, and let the unit come to its final verdict."},
      {"end.sigkill", O::kOperator, W::kEnds,
       "The run was killed from outside (SIGKILL) before the unit gave its final verdict.",
       "Begin a new run. If nobody killed it, see whether the system ran out of memory (dmesg)."},
      {"end.abort", O::kUnknown, W::kEnds, "The station's program was aborted.",
       "Read what it wrote last; see whether a program uses up the system's sockets and files (lsof). Then "
       "begin a new run."},
      {"end.signal", O::kUnknown, W::kEnds,
       "The station's program was ended by a signal that nobody sends on purpose.",
       "Hand this record to whoever looks after the program, and begin a new run."},
      // What is worth to be known.
      {"ppt.error", O::kPptServer, W::kAlso,
       "The PPT server answered a verdict with an error; the run goes on all the same.",
       "Ask whoever looks after the PPT server why."},
      {"ppt.odd-answer", O::kPptServer, W::kAlso,
       "The PPT server's answer to a verdict was empty, or could not be received; the run goes on all the "
       "same.",
       "Ask whoever looks after the PPT server why; look at the network towards it."},
      {"verdict.repeated", O::kUnit, W::kAlso,
       "The unit repeated a verdict while the station was still busy with it.",
       "Ask whoever writes the unit's test script to let it wait for more than five seconds before it "
       "repeats a verdict: so long the station waits for the PPT server."},
      {"command.unknown", O::kUnit, W::kAlso,
       "The unit sent a command that the station does not know, and got it back unchanged.",
       "Ask whoever writes the unit's test script to correct the command."},
      {"command.held-open", O::kUnit, W::kAlso,
       "The unit kept its command connection open after the final verdict, and so held up the end of the "
       "run.",
       "Ask whoever writes the unit's test script to close it before the final verdict."},
      {"command.broke", O::kUnit, W::kAlso, "A command connection of the unit broke off.",
       "See whether the unit started over; else look at the cable of the test network."},
      {"command.port-closed", O::kStation, W::kAlso,
       "The station closed its command port before the end of the run.", kDescriptors},
      {"net.loss", O::kTestNetwork, W::kAlso,
       "Frames were lost on the test network; each lost block costs the unit five seconds.",
       "A few: nothing. Many, or in every run: change the cable between unit and station, or the port of the "
       "switch."},
      {"net.duplicates", O::kTestNetwork, W::kAlso, "Frames came twice on the test network.",
       "Look for a loop in the cabling of the test network."},
      {"net.swaps", O::kTestNetwork, W::kAlso, "Frames overtook each other on the test network.",
       "Look for two ways between unit and station; there is to be one."},
      {"net.ppt-loss", O::kUnknown, W::kAlso, "Frames were lost between the station and the PPT server.",
       "Once: nothing. In every run: look at the cable and the switch towards the PPT server."},
      {"net.stray", O::kUnknown, W::kAlso, "Something that is no request came to the station's TFTP port.",
       "Find its sender in the record (Wireshark), and take it off the test network."},
      {"file.written", O::kUnit, W::kAlso,
       "The unit asked to write a file, which the station does not take: it has made an empty one.",
       "Remove the empty file from the station's directory, and ask whoever writes the unit's test script to "
       "correct it."},
      {"relay.none", O::kStation, W::kAlso,
       "The station passes no datagrams of the unit on in this run; its line says why.",
       "If the unit's tests need them: give lan0 the address 172.40.0.1, and end the program that has UDP "
       "port 12345 (as root, ss -ulpn shows it). Then begin a new run."},
      {"relay.no-route", O::kStation, W::kAlso,
       "A datagram of the unit could not be passed on to the PPT server.",
       "Compare {ppt:-s} with the PPT server's address; if it is right, give the station the route (ip route "
       "add)."},
      {"relay.ended", O::kStation, W::kAlso,
       "The station stopped passing datagrams of the unit on before the end of the run.",
       "If the unit's tests need them, begin a new run."},
      {"station.wait-failed", O::kStation, W::kAlso,
       "The station was interrupted several times while it waited, as when its process is stopped and "
       "continued.",
       "See that nobody stops the process (a debugger), and that no program uses up the system's sockets and "
       "files (lsof)."},
      // What is left.
      {"passed", O::kNone, W::kNoFault, "The unit passed.", "Nothing: the next unit can be tested."},
      {"verdict.unexplained", O::kUnknown, W::kNoFault,
       "The record lacks what would show whether the unit or something else led to this.",
       "See below what the record lacks. Begin a new run, and record both networks and the station's lines "
       "(zirn-run record)."},
      {"record.no-end", O::kUnknown, W::kNoFault, "The record does not say how the run ended.",
       "See whether the run still goes on. Record the next one to its end, with the station's lines "
       "(zirn-run record)."},
      {"record.no-run", O::kUnknown, W::kNoFault, "There is no run of a station in the record.",
       "Record the station's own networks while a run goes on (zirn-run record)."},
  };
  return kCauses;
}

const Cause& cause(std::string_view id) {
  const auto found =
      std::find_if(causes().begin(), causes().end(), [id](const Cause& one) { return one.id == id; });
  if (found == causes().end()) throw std::out_of_range("no cause " + std::string(id));
  return *found;
}

}  // namespace explanation
