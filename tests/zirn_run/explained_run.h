#ifndef ZIRN_RUN_EXPLAINED_RUN_H
#define ZIRN_RUN_EXPLAINED_RUN_H

#include <csignal>
#include <string>

#include "explanation/explanation.h"
#include "support/tftp_bytes.h"
#include "zirn_run/made_run.h"

// A run that is told as it goes, by what unit, station and PPT server do, and explained at its end. What the record is
// to lack is left out of it as it is told.
class ExplainedRun {
 public:
  // kInterrupted: silent, and the station's wait for it ends after two seconds.
  enum class Ppt { kAnswers, kSilent, kClosed, kAnswersError, kInterrupted };
  struct Lacking {
    bool lines = false;  // and all other entries
    bool ppt_network = false;
    bool from_unit = false;
    bool from_station = false;
    bool frames = false;
  };

  void line(const std::string& text) {
    if (!lacking.lines) run.line(text);
  }
  void says(const record::RunEntry& entry) {
    if (!lacking.lines) run.says(entry);
  }
  void starts() {
    line("Starting TFTP server on 172.40.0.1:69 PPT Server: 172.30.0.254");
    line("Server started , waiting for connections");
  }
  void sends_boot_script(int times = 2) {
    line("Message Sender initialized. IP: 172.40.0.255 Port=12345");
    for (; times > 0; --times) {
      if (lacking.frames || lacking.from_station) continue;
      run.broadcasts_boot_script();
      run.rests(1000);
    }
  }
  void begins() {
    starts();
    sends_boot_script();
  }

  // From the unit to the station, and back.
  void unit_sends(made::Endpoint to, const std::string& payload) {
    if (!lacking.frames && !lacking.from_unit) run.udp(unit, to, payload);
  }
  void station_sends(std::uint16_t from, const std::string& payload) {
    if (!lacking.frames && !lacking.from_station) run.udp({made::kStation, from}, unit, payload);
  }
  void asks_for(const std::string& name, const std::string& mode = "octet") {
    unit.port = ++last_port;
    answering = static_cast<std::uint16_t>(answering + 100);
    unit_sends({made::kStation, 69}, std::string("\0\1", 2) + name + '\0' + mode + '\0');
  }
  void reads(const std::string& name, int blocks = 2) {
    asks_for(name);
    line("RRQ " + name);
    for (int block = 1; block <= blocks; ++block) {
      station_sends(answering, tftp::data(block, std::string(block < blocks ? 512 : 100, 'x')));
      unit_sends({made::kStation, answering}, tftp::ack(block));
    }
  }
  void is_refused(const std::string& name, int code, const std::string& text,
                  const std::string& mode = "octet") {
    asks_for(name, mode);
    line("RRQ " + name);
    station_sends(answering, tftp::error(code, text));
  }
  void gives(const std::string& name) {
    asks_for(name);
    station_sends(answering, tftp::data(1, ""));
    unit_sends({made::kStation, answering}, tftp::ack(1));
    line("Cmd received: " + name);
    if (!is_final(*story::verdict_in(name))) passes_on(name);
  }
  void passes_on(const std::string& name) {
    constexpr made::Endpoint kServer{made::kPptServer, 69}, kAnswering{made::kPptServer, 50000};
    const made::Endpoint station{made::kStationAtPpt, ++last_port};
    ppt_frame(station, kServer, tftp::rrq(story::query_for(name)));
    if (ppt == Ppt::kClosed && !lacking.frames && !lacking.ppt_network) run.closed(station, kServer);
    if (ppt == Ppt::kAnswers) ppt_frame(kAnswering, station, tftp::data(1, ""));
    if (ppt == Ppt::kAnswersError) {
      ppt_frame(kAnswering, station, tftp::error(1, "no"));
      line("Error! Error code: 1");
      line("Error message: File not found");
    }
    const bool is_answered = ppt == Ppt::kAnswers || ppt == Ppt::kAnswersError;
    if (!is_answered) run.rests(ppt == Ppt::kInterrupted ? 2000 : 5000);
    if (ppt == Ppt::kInterrupted) line("Error in select(): ");
    ppt_frame(station, is_answered ? kAnswering : kServer, tftp::ack(1));
  }
  void ppt_frame(made::Endpoint from, made::Endpoint to, const std::string& payload) {
    if (!lacking.frames && !lacking.ppt_network) run.udp(from, to, payload);
  }

  // On a connection of its own, to the command port; without a reply none comes for so long.
  void asks(const std::string& question, const std::string& reply, int milliseconds = 0) {
    const made::Endpoint client{made::kUnit, ++last_port}, server{made::kStation, 12345};
    tcp(client, server, made::kSyn, 100);
    tcp(server, client, made::kSyn | made::kAck, 200);
    tcp(client, server, made::kAck, 101, question);
    run.rests(milliseconds);
    if (reply.empty()) return;
    tcp(server, client, made::kAck, 201, reply);
    tcp(client, server, made::kFin | made::kAck, static_cast<std::uint32_t>(101 + question.size()));
    tcp(server, client, made::kFin | made::kAck, static_cast<std::uint32_t>(201 + reply.size()));
  }
  void asks_in_vain() {
    const made::Endpoint client{made::kUnit, ++last_port}, server{made::kStation, 12345};
    tcp(client, server, made::kSyn, 100);
    tcp(server, client, made::kRst | made::kAck, 0);
  }
  void tcp(made::Endpoint from, made::Endpoint to, unsigned flags, std::uint32_t sequence,
           const std::string& text = "") {
    const bool is_lacking = from.address == made::kUnit ? lacking.from_unit : lacking.from_station;
    if (!lacking.frames && !is_lacking) run.tcp(from, to, flags, sequence, text);
  }

  void ends(int status) { says(record::StationEnds{status, 0}); }
  void is_killed(int signal) { says(record::StationEnds{std::nullopt, signal}); }

  // "owner cause"
  std::string fault() {
    told = explanation::explain(run.ends());
    return std::string(name_of(told.fault.cause->owner)) + " " + std::string(told.fault.cause->id);
  }
  bool has_also(std::string_view cause) const {
    for (const explanation::Claim& claim : told.also) {
      if (claim.cause->id == cause) return true;
    }
    return false;
  }

  MadeRun run;
  Lacking lacking;
  Ppt ppt = Ppt::kAnswers;
  made::Endpoint unit{made::kUnit, 2000};
  std::uint16_t last_port = 2000;
  std::uint16_t answering = 33033;
  explanation::Explanation told;
};

#endif
