#include "check/looks.h"

namespace check {

namespace {

constexpr char kGiveAddress[] =
    "ip address del 172.40.0.1/24 dev lan0, where that is there, and then "
    "ip address add 172.40.0.1/24 broadcast 172.40.0.255 label lan0:0 dev lan0";

}  // namespace

const std::vector<Point>& points() {
  static const std::vector<Point> all = {
      {"no run", "no run of the station is under way",
       "the new run gets no ports, or takes those of the other",
       "wait for its end, or stop it: systemctl stop zirn-test-station, or /etc/init.d/zirn-test-station "
       "stop",
       true, look_at_run},
      {"link", "there is a link lan0", "no boot script, no relay, no command port",
       "call the link to the units so: ip link set NAME down, ip link set NAME name lan0", true,
       look_at_link},
      {"link up", "lan0 is up", "no boot script", "ip link set lan0 up", true, look_at_link_up},
      {"carrier", "lan0 has a carrier", "no unit hears or is heard",
       "look at the cable, and at what it goes to", false, look_at_carrier},
      {"label", "an address has the label lan0:0", "no boot script", kGiveAddress, true, look_at_label},
      {"address", "the board has the address 172.40.0.1", "no relay and no command port", kGiveAddress, false,
       look_at_fixed_address},
      {"broadcast address", "lan0:0 has the broadcast address of its network",
       "no unit hears the boot script", kGiveAddress, true, look_at_broadcast_address},
      {"protocols", "/etc/protocols has udp", "no boot script", "install netbase", true, look_at_protocols},
      {"raw sockets", "the program has the right CAP_NET_RAW", "no boot script",
       "start it as root, or with CAP_NET_RAW", true, look_at_right_to_raw},
      {"low ports", "the program may take ports below 1024", "no run at all (-n), or no boot script (-m)",
       "start it as root, or with CAP_NET_BIND_SERVICE", true, look_at_right_to_low_ports},
      {"served address", "the address of -o is the board's, and units reach it", "units find no server",
       "serve on 172.40.0.1: -o 172.40.0.1", true, look_at_served_address},
      {"TFTP port", "the UDP port of -n is free", "no run at all", "end what holds it", true,
       look_at_tftp_port},
      {"boot script port", "the UDP port of -m is free on the broadcast address", "no boot script",
       "end what holds it", true, look_at_boot_script_port},
      {"relay port", "UDP port 12345 is free on 172.40.0.1", "no relay", "end what holds it", false,
       look_at_relay_port},
      {"command port", "the TCP port of -m is free on 172.40.0.1", "the unit's commands are refused",
       "end what holds it", false, look_at_command_port},
      {"folder", "the folder with the files to serve can be read", "units find no file",
       "make it, let the program read it, or start in another (--folder)", true, look_at_folder},
      {"bootscript.txt", "it is in the folder and can be read", "units do not boot",
       "put it into the folder, with leave to read it", true, look_at_boot_script},
      {"files", "the folder has what bootscript.txt loads by tftp", "units do not boot",
       "put them into the folder, with leave to read them, or correct bootscript.txt", true, look_at_files},
      {"envtool", "envtool is in the PATH", "all units get one MAC address, and no failed board is marked",
       "install it, or add its folder to PATH in /etc/default/zirn-test-station", false, look_at_envtool},
      {"tempmac", "envtool show tempmac ends with a line tempmac=ADDRESS", "units get a wrong MAC address",
       "give the board its temporary MAC address by envtool", false, look_at_temporary_mac},
      {"ppt_flag", "the flag of the run before is not failed", "a good unit reads as failed",
       "clear it with the board's envtool: envtool ppt_flag=", false, look_at_flag},
      {"voice script", "/etc/init.d/voice can be executed", "the voice service is not restarted for the test",
       "install it, and chmod +x /etc/init.d/voice", false, look_at_voice_script},
      {"T1/E1 tool", "/mnt/ramdisk/t1-e1 can be executed", "units are told READY, and nothing was tested",
       "install it, and chmod +x /mnt/ramdisk/t1-e1", false, look_at_tool},
      {"route", "a route leads to the PPT server",
       "verdicts and datagrams are lost, and there is no command port",
       "correct -s, or give a route: ip route add SERVER via ROUTER", false, look_at_route},
      {"PPT server", "the PPT server answers",
       "verdicts are lost, each takes five seconds, and there is no command port",
       "see whether it is on, and its cable; correct -s if it is another", false, look_at_ppt_server},
      {"time", "the board's time is not before the program was built", "records and journal have wrong times",
       "set the clock: date -s", false, look_at_time},
  };
  return all;
}

}  // namespace check
