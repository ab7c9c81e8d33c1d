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
    "Find what uses up the station's descriptors, end it, and begin a new run.";
constexpr std::string_view kNewRun = "Begin a new run.";

}  // namespace

std::string_view name_of(Owner owner) {
  return of(owner).name;
}

std::string_view words_for(Owner owner) {
  return of(owner).words;
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
      {"start.port-in-use", O::kStation, W::kDecides, "The TFTP port of the station is taken.",
       "End the run that is still under way, or what else has the port; then begin a new run."},
      {"start.no-address", O::kStation, W::kDecides,
       "The address that the station is to serve on is on none of its links.",
       "Set the link up, or correct -o."},
      {"start.no-right", O::kStation, W::kDecides, "The station may not use its TFTP port.",
       "Start it as root, or with CAP_NET_BIND_SERVICE."},
      {"start.no-port", O::kStation, W::kDecides, "The TFTP port could not be bound.",
       "See the reason in the station's line."},
      {"start.no-socket", O::kStation, W::kDecides, "No socket could be made for the run.", kDescriptors},
      {"start.no-memory", O::kStation, W::kDecides, "There was no memory for the command line.",
       "Free memory on the station."},
      {"start.no-server", O::kOperator, W::kDecides, "The station was started with an empty -s.",
       "Give -s the PPT server's address, or leave it out."},
      {"verdict.too-short", O::kUnit, W::kDecides,
       "The unit gave a verdict whose name has fewer than eight characters, which aborts the station "
       "(known behaviour 11).",
       "Correct the unit's script: after F_l_m_ a verdict has two characters at least."},
      {"command.left-early", O::kUnit, W::kDecides,
       "The unit closed its command connection before its answer was sent, which ends the station.",
       "Have the unit wait for the answer; look at whether a tool of the board takes long."},
      // No boot script.
      {"boot.no-right", O::kStation, W::kExplains,
       "There is no boot script: the station may not ask for its link.",
       "Start it as root, or with CAP_NET_RAW."},
      {"boot.no-link", O::kStation, W::kExplains,
       "There is no boot script: the station has no lan0:0, or that has no address.",
       "Set the link up with its label and address."},
      {"boot.no-protocols", O::kStation, W::kExplains, "There is no boot script: /etc/protocols has no udp.",
       "Install netbase."},
      {"boot.link-down", O::kStation, W::kExplains, "There is no boot script: the link lan0 is down.",
       "Set the link up."},
      {"boot.port-in-use", O::kStation, W::kExplains, "There is no boot script: the message port is taken.",
       "End what uses UDP port -m, which is 12345 where nothing else was said; then begin a new run."},
      {"boot.no-broadcast", O::kStation, W::kExplains,
       "There is no boot script: lan0:0 has no broadcast address.",
       "Give the link its broadcast address. If it has one, end what uses UDP port -m there."},
      {"boot.not-sent", O::kStation, W::kExplains, "The boot script could not be sent.",
       "Put the link lan0 up."},
      {"boot.no-socket", O::kStation, W::kExplains,
       "There is no boot script: no socket could be made for it.", kDescriptors},
      {"boot.none", O::kStation, W::kExplains, "There is no boot script.",
       "See the line before \"Failed to initialize sender\"."},
      {"boot.unanswered", O::kUnknown, W::kExplains, "No unit answered the boot script.",
       "Look at the cable, at the unit's power, and at its boot loader; then begin a new run."},
      // What the unit was told wrongly, or not given.
      {"board.tool-failed", O::kBoard, W::kExplains,
       "The T1/E1 tool ended with 0, which is its failure (known behaviour 36).",
       "Call /mnt/ramdisk/t1-e1 by hand on the board, and look at its T1/E1 hardware."},
      {"board.tool-missing", O::kBoard, W::kExplains,
       "A tool of the board is missing, so that the unit was answered wrongly.",
       "Install the tool in its place on the board."},
      {"board.tool-hangs", O::kBoard, W::kExplains, "A tool of the board did not come to its end.",
       "Call the tool by hand on the board; end this run and begin a new one."},
      {"command.unanswered", O::kUnknown, W::kExplains,
       "A command got no answer, and the record does not say why.",
       "Record both networks and the station's lines, and begin a new run."},
      {"command.port-in-use", O::kStation, W::kExplains, "The command port of the station is taken.",
       "End what uses TCP port -m on 172.40.0.1, then begin a new run."},
      {"command.no-address", O::kStation, W::kExplains,
       "There is no command port: the station has no address 172.40.0.1.",
       "Give lan0 the address 172.40.0.1."},
      {"command.no-port", O::kStation, W::kExplains, "There is no command port.",
       "Find what uses up the station's descriptors, and begin a new run."},
      {"command.too-early", O::kUnit, W::kExplains,
       "The unit connected to the command port before its first verdict, which opens it.",
       "Correct the unit's script: the first verdict comes before any command."},
      {"command.second", O::kUnit, W::kExplains,
       "The unit asked on a second command connection while its first one was open.",
       "Have the unit close each command connection before the next one."},
      {"command.refused", O::kUnknown, W::kExplains, "The unit's commands were refused.",
       "See the lines at the first verdict, which opens the command port."},
      {"net.cable-out", O::kTestNetwork, W::kExplains, "The cable of the test network was out.",
       "Look at the cable and its plugs; then begin a new run."},
      {"net.read-broken", O::kTestNetwork, W::kExplains,
       "A read came to no end because frames were lost on the test network.",
       "Change the cable and the port of the test network; then begin a new run."},
      {"file.missing", O::kStation, W::kExplains,
       "A file that the unit asks for is not there, or cannot be read.",
       "Put the file into the station's directory; look at its spelling and its rights."},
      {"file.wrong-mode", O::kUnit, W::kExplains, "The unit reads in another mode than octet.",
       "Set the unit's loader to octet."},
      {"file.no-name", O::kUnit, W::kExplains, "The unit asks for a file without a name.",
       "Correct the unit's script."},
      {"read.options-refused", O::kUnit, W::kExplains,
       "The unit's loader gave up over the options that the station acknowledged.",
       "Have the loader ask for another block size, and without options that the station does not serve."},
      {"read.given-up", O::kUnit, W::kExplains, "The unit ended a read with an ERROR.",
       "See its words; look at the room that its loader has for the file."},
      {"unit.restarted", O::kUnit, W::kExplains, "The unit fell silent in a read, and began anew later.",
       "Look at the unit's power, and why it starts over."},
      {"file.refused", O::kUnknown, W::kExplains, "The station refused a read.", "See its words."},
      {"read.unanswered", O::kUnknown, W::kExplains, "A read of the unit got no answer.",
       "Look at whether the station still runs, and at the test network."},
      {"unit.gone", O::kUnknown, W::kExplains,
       "The unit fell silent in a read and was not heard again: it is gone, or its cable is out.",
       "Look at the unit's power and its cable; then begin a new run."},
      {"unit.failed", O::kUnit, W::kExplains,
       "The unit reports a failure, and nothing before explains it better.",
       "Take the unit for failed, and see the step."},
      {"ppt.refused", O::kPptServer, W::kExplains,
       "The PPT server does not take the connection on its message port: the unit's commands are not "
       "served (known behaviour 39).",
       "Start the PPT server; then begin a new run."},
      {"ppt.dropped", O::kPptServer, W::kExplains,
       "The connection to the PPT server's message port was not answered.",
       "Look at the PPT server and what filters its network; then begin a new run."},
      {"ppt.absent", O::kPptServer, W::kExplains, "There is no machine at the PPT server's address.",
       "Look at the PPT server, its cable and its address, and at -s; then begin a new run."},
      {"ppt.no-route", O::kStation, W::kExplains, "The station has no route to the PPT server.",
       "Correct the route, or -s; then begin a new run."},
      {"ppt.not-connected", O::kUnknown, W::kExplains, "The station could not connect to the PPT server.",
       "See the reason in the station's line; then begin a new run."},
      {"ppt.closed", O::kPptServer, W::kExplains, "Nobody listens on the PPT server's UDP port.",
       "Start the PPT server; then begin a new run."},
      {"ppt.silent", O::kPptServer, W::kExplains, "The PPT server did not answer a verdict.",
       "Start the PPT server, or look at the route to it; then begin a new run."},
      {"ppt.late", O::kPptServer, W::kExplains,
       "The PPT server answered a verdict after the station had given up.",
       "Look at what holds the PPT server up."},
      {"board.mac-default", O::kBoard, W::kExplains,
       "envtool knows no tempmac, or is missing: the unit was told the MAC address that every unit is told "
       "(known behaviour 37).",
       "Install envtool on the board, and set tempmac."},
      {"board.mac-empty", O::kBoard, W::kExplains,
       "tempmac is empty: the unit was told a MAC address that is none.",
       "Set tempmac with the board's envtool."},
      {"file.empty", O::kStation, W::kExplains, "A file that the unit read is empty.",
       "Put the right file into the station's directory."},
      // Nothing hindered the verdict, and the run ended without it.
      {"end.sigint", O::kOperator, W::kEnds, "SIGINT ended the run before the unit gave its final verdict.",
       kNewRun},
      {"end.sigterm", O::kOperator, W::kEnds, "SIGTERM ended the run before the unit gave its final verdict.",
       kNewRun},
      {"end.sigkill", O::kOperator, W::kEnds, "SIGKILL ended the run before the unit gave its final verdict.",
       kNewRun},
      {"end.abort", O::kUnknown, W::kEnds, "The station was aborted.",
       "See what it wrote to standard error; find what uses up its descriptors."},
      {"end.signal", O::kUnknown, W::kEnds, "A signal ended the station.", "Report it, with this record."},
      // What is worth to be known.
      {"ppt.error", O::kPptServer, W::kAlso, "The PPT server answered a verdict with an ERROR.",
       "Ask why at the PPT server."},
      {"ppt.odd-answer", O::kPptServer, W::kAlso,
       "The PPT server's answer to a verdict was none, or could not be received.",
       "Ask why at the PPT server."},
      {"verdict.repeated", O::kUnit, W::kAlso,
       "The unit gave a verdict again while the station was busy with it.",
       "Have the unit wait longer for the answer than the station for the PPT server, which is 5 s."},
      {"command.unknown", O::kUnit, W::kAlso, "The unit sent a text that is no command, and got it back.",
       "Correct the unit's script."},
      {"command.held-open", O::kUnit, W::kAlso,
       "A command connection that stays open holds up the run's end (known behaviour 35).",
       "Have the unit close its command connection."},
      {"command.broke", O::kUnit, W::kAlso, "A command connection broke.",
       "See whether the unit started over."},
      {"command.port-closed", O::kStation, W::kAlso, "The command port closed before the run's end.",
       kDescriptors},
      {"net.loss", O::kTestNetwork, W::kAlso,
       "Frames were lost on the test network; each lost block costs five seconds.",
       "Once in a while: nothing. More: change the cable and the port."},
      {"net.duplicates", O::kTestNetwork, W::kAlso, "Frames came twice on the test network.",
       "Look for a loop in the test network."},
      {"net.swaps", O::kTestNetwork, W::kAlso, "Frames overtook each other on the test network.",
       "Look for two ways through the test network."},
      {"net.ppt-loss", O::kUnknown, W::kAlso, "Frames were lost between the station and the PPT server.",
       "Look at the network of the PPT server."},
      {"net.stray", O::kUnknown, W::kAlso, "Something else than a request came to the TFTP port.",
       "Look for a stray sender on the test network."},
      {"file.written", O::kUnit, W::kAlso, "Somebody writes a file; it stays empty.",
       "Remove the empty file."},
      {"relay.none", O::kStation, W::kAlso, "Datagrams are not relayed in this run.",
       "Give lan0 the address 172.40.0.1, and end what uses UDP port 12345."},
      {"relay.no-route", O::kStation, W::kAlso, "A datagram could not be passed on to the PPT server.",
       "Correct the route to the PPT server."},
      {"relay.ended", O::kStation, W::kAlso, "The relay of datagrams has ended.",
       "End the run if the unit needs it."},
      {"station.wait-failed", O::kStation, W::kAlso, "A wait of the station was cut short.",
       "Once: nothing. More: see whether the process was stopped, and what uses up its descriptors."},
      // What is left.
      {"passed", O::kNone, W::kNoFault, "The unit passed.", ""},
      {"verdict.unexplained", O::kUnknown, W::kNoFault,
       "The record lacks what would show whether something else than the unit led to this.",
       "Record both networks and the station's lines, and begin a new run."},
      {"record.no-end", O::kUnknown, W::kNoFault, "The record does not say how the run ended.",
       "Record the run to its end, with the station's lines."},
      {"record.no-run", O::kUnknown, W::kNoFault, "There is no run of a station in the record.",
       "Record the station's networks while it runs."},
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
