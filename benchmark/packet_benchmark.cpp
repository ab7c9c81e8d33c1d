// How many packets per second the codec builds and parses, with 512 and with 32768 bytes of data. The items
// that are reported are packets.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "tftp_packet/tftp_packet.h"

namespace {

const std::vector<std::string> kNames = {"timeout", "blksize", "tsize"};
const std::vector<std::string> kValues = {"5", "32768", "33554432"};

// Repeats the step on a packet that has the capacity of a block of the benchmark's size.
template <typename Step>
void repeat(benchmark::State& state, const Step& step) {
  TFTP_Packet packet;
  packet.reSizeForBlock(static_cast<int>(state.range(0)));
  step(packet);
  for (auto _ : state) {
    step(packet);
    benchmark::DoNotOptimize(packet.data);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}

void build_data(benchmark::State& state) {
  const std::string block(static_cast<std::size_t>(state.range(0)), 'x');
  repeat(state,
         [&](TFTP_Packet& packet) { packet.createData(7, block.data(), static_cast<int>(block.size())); });
}

void build_data_in_place(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  repeat(state, [&](TFTP_Packet& packet) { packet.createDataInPlace(7, count); });
}

void build_request(benchmark::State& state) {
  repeat(state, [](TFTP_Packet& packet) { packet.createRRQ("bootscript.txt", kNames, kValues); });
}

void build_option_acknowledgement(benchmark::State& state) {
  repeat(state, [](TFTP_Packet& packet) { packet.createOACK(kNames, kValues); });
}

void build_error(benchmark::State& state) {
  repeat(state, [](TFTP_Packet& packet) { packet.createError(1, "File not found"); });
}

void build_acknowledgement(benchmark::State& state) {
  repeat(state, [](TFTP_Packet& packet) { packet.createACK(7); });
}

// The parsers find their packet built.
template <typename Build, typename Parse>
void parse(benchmark::State& state, const Build& build, const Parse& parse_one) {
  TFTP_Packet packet;
  packet.reSizeForBlock(static_cast<int>(state.range(0)));
  build(packet);
  for (auto _ : state) benchmark::DoNotOptimize(parse_one(packet));
  state.SetItemsProcessed(state.iterations());
}

void parse_request(benchmark::State& state) {
  std::vector<std::string> names;
  std::vector<std::string> values;
  parse(
      state, [](TFTP_Packet& packet) { packet.createRRQ("bootscript.txt", kNames, kValues); },
      [&](const TFTP_Packet& packet) { return packet.hasOption(names, values); });
}

void parse_option_acknowledgement(benchmark::State& state) {
  std::vector<std::string> names;
  std::vector<std::string> values;
  parse(
      state, [](TFTP_Packet& packet) { packet.createOACK(kNames, kValues); },
      [&](const TFTP_Packet& packet) { return packet.isOACK(names, values); });
}

void parse_acknowledgement(benchmark::State& state) {
  parse(
      state, [](TFTP_Packet& packet) { packet.createACK(7); },
      [](const TFTP_Packet& packet) { return packet.isACK() ? packet.getNumber() : 0; });
}

void parse_data(benchmark::State& state) {
  const std::string block(static_cast<std::size_t>(state.range(0)), 'x');
  std::string copy(block.size(), '\0');
  parse(
      state, [&](TFTP_Packet& packet) { packet.createData(7, block.data(), static_cast<int>(block.size())); },
      [&](const TFTP_Packet& packet) {
        return packet.isData() &&
               packet.copyData(TFTP_Packet::kHeaderSize, copy.data(), packet.size - TFTP_Packet::kHeaderSize);
      });
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(512)->Arg(TFTP_Packet::kMaxSize);
}

BENCHMARK(build_data)->Apply(sizes);
BENCHMARK(build_data_in_place)->Apply(sizes);
BENCHMARK(build_request)->Apply(sizes);
BENCHMARK(build_option_acknowledgement)->Apply(sizes);
BENCHMARK(build_error)->Apply(sizes);
BENCHMARK(build_acknowledgement)->Apply(sizes);
BENCHMARK(parse_data)->Apply(sizes);
BENCHMARK(parse_request)->Apply(sizes);
BENCHMARK(parse_option_acknowledgement)->Apply(sizes);
BENCHMARK(parse_acknowledgement)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
