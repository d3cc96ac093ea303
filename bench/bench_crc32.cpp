// The checksum of a program file, which a frozen program waits for:
//   - modChecksum::CRC32File on a 200 MB file in the page cache;
//   - the original method on the same file: 4096-byte reads, one table look-up per byte;
//   - read() alone in the blocks CRC32File uses, the ceiling of any method;
//   - in memory, 1 MiB: crc32::Update (the fastest method of this processor), each method
//     by itself (0 slicing-by-8, 1 carry-less fold, 2 wide carry-less fold) and the byte
//     table.
// Goals: CRC32File >= 3 GB/s and >= 8 times the original method.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/ui_port.h"
#include "monitor/mailbox.h"
#include "platform/sim/sim_system.h"
#include "process/modPauseProcess.h"
#include "process/modprocs.h"
#include "rules/crc32.h"
#include "rules/modChecksum.h"

namespace {

using namespace tessmark;

constexpr size_t kFileSize = 200u << 20;
constexpr size_t kMemorySize = 1u << 20;

// A modChecksum on the simulated system; nothing is frozen for a path without a pid.
struct Checksummer {
  platform::sim::SimSystem sim;
  Mailbox mailbox;
  modprocs procs{sim, mailbox};
  modPauseProcess pause{sim, procs};
  SilentUi ui;
  modChecksum checksum{pause, mailbox, ui};
};

void FillPseudoRandom(std::vector<unsigned char>& bytes, uint64_t& state) {
  for (size_t i = 0; i + 8 <= bytes.size(); i += 8) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    std::memcpy(bytes.data() + i, &state, 8);
  }
}

// The 200 MB file, written once into a folder of its own, read once so the page cache holds
// it, and removed when the program ends.
class BenchFile {
 public:
  const std::string& path() {
    if (path_.empty()) create();
    return path_;
  }
  ~BenchFile() {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }

 private:
  void create() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tessmark-bench-XXXXXX");
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::exit(1);
    }
    dir_ = pattern;
    path_ = dir_ + "/program.bin";
    std::FILE* file = std::fopen(path_.c_str(), "wb");
    std::vector<unsigned char> block(1u << 20);
    uint64_t state = 0x9E3779B97F4A7C15u;
    for (size_t written = 0; file != nullptr && written < kFileSize; written += block.size()) {
      FillPseudoRandom(block, state);
      if (std::fwrite(block.data(), 1, block.size(), file) != block.size()) break;
    }
    if (file == nullptr || std::fclose(file) != 0 ||
        std::filesystem::file_size(path_) != kFileSize) {
      std::fprintf(stderr, "cannot write %s\n", path_.c_str());
      std::exit(1);
    }
    int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    while (fd >= 0 && ::read(fd, block.data(), block.size()) > 0) {
    }
    if (fd >= 0) ::close(fd);
  }

  std::string dir_;
  std::string path_;
};

BenchFile benchFile;

void BM_CRC32File(benchmark::State& state) {
  const std::string& path = benchFile.path();
  Checksummer c;
  int32_t crc = 0;
  for (auto _ : state) {
    crc = c.checksum.CRC32File(path, 0, 0);
    benchmark::DoNotOptimize(crc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
  state.SetLabel(std::to_string(crc));
}
BENCHMARK(BM_CRC32File)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

// The original method, for the ratio: 4096-byte reads, one look-up per byte.
// A sparse file of 64 GiB holding range(0) MiB of data in 1 MiB runs spread over it: the time
// follows the data, as holes are computed, not read.
void BM_CRC32FileSparse(benchmark::State& state) {
  const auto runs = static_cast<off_t>(state.range(0));
  constexpr off_t kSparseSize = off_t{64} << 30;
  std::string path = benchFile.path() + ".sparse";
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  std::vector<unsigned char> block(1u << 20);
  uint64_t seed = 7;
  bool ok = fd >= 0 && ::ftruncate(fd, kSparseSize) == 0;
  for (off_t i = 0; ok && i < runs; ++i) {
    FillPseudoRandom(block, seed);
    off_t at = kSparseSize / runs * i;
    ok = ::pwrite(fd, block.data(), block.size(), at) == static_cast<ssize_t>(block.size());
  }
  if (fd >= 0) ::close(fd);
  if (!ok) {
    state.SkipWithError("cannot write a sparse file here");
    return;
  }
  Checksummer c;
  for (auto _ : state) benchmark::DoNotOptimize(c.checksum.CRC32File(path, 0, 0));
  state.counters["data_MiB"] = static_cast<double>(runs);
  std::filesystem::remove(path);
}
BENCHMARK(BM_CRC32FileSparse)
    ->Arg(1)
    ->Arg(16)
    ->Arg(64)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_FileByteTable4096(benchmark::State& state) {
  const std::string& path = benchFile.path();
  Checksummer c;
  c.checksum.CRCInit(modChecksum::kPolynomial);
  const auto* table = reinterpret_cast<const uint32_t*>(c.checksum.CrcTable.data());
  std::vector<unsigned char> buffer(4096);
  int32_t crc = 0;
  for (auto _ : state) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    uint32_t reg = 0xFFFFFFFFu;
    ssize_t got;
    while ((got = ::read(fd, buffer.data(), buffer.size())) > 0)
      reg = crc32::UpdateByteTable(reg, buffer.data(), static_cast<size_t>(got), table);
    ::close(fd);
    crc = static_cast<int32_t>(~reg);
    benchmark::DoNotOptimize(crc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
  state.SetLabel(std::to_string(crc));
}
BENCHMARK(BM_FileByteTable4096)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

// read() alone in CRC32File's blocks: what no checksum method can beat.
void BM_FileReadOnly(benchmark::State& state) {
  const std::string& path = benchFile.path();
  auto buffer = std::make_unique<unsigned char[]>(modChecksum::kReadBlockSize);
  for (auto _ : state) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    while (::read(fd, buffer.get(), modChecksum::kReadBlockSize) > 0) {
    }
    ::close(fd);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
}
BENCHMARK(BM_FileReadOnly)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

std::vector<unsigned char> MemoryBlock() {
  std::vector<unsigned char> bytes(kMemorySize);
  uint64_t state = 12345;
  FillPseudoRandom(bytes, state);
  return bytes;
}

template <typename Method>
void InMemory(benchmark::State& state, Method method) {
  const std::vector<unsigned char> bytes = MemoryBlock();
  uint32_t reg = 0xFFFFFFFFu;
  for (auto _ : state) {
    reg = method(reg, bytes.data(), bytes.size());
    benchmark::DoNotOptimize(reg);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

const char* MethodName(crc32::Method method) {
  switch (method) {
    case crc32::Method::Slicing8:
      return "slicing-by-8";
    case crc32::Method::CarrylessFold:
      return "carry-less fold";
    case crc32::Method::WideCarrylessFold:
      return "wide carry-less fold";
  }
  return "?";
}

void BM_MemoryUpdate(benchmark::State& state) {
  state.SetLabel(MethodName(crc32::FastestMethod()));
  InMemory(state, &crc32::Update);
}
BENCHMARK(BM_MemoryUpdate)->Unit(benchmark::kMicrosecond);

// Each method by itself; one the processor lacks is skipped.
void BM_MemoryMethod(benchmark::State& state) {
  auto method = static_cast<crc32::Method>(state.range(0));
  if (!crc32::Supports(method)) {
    state.SkipWithError("this processor lacks the method's instructions");
    return;
  }
  state.SetLabel(MethodName(method));
  InMemory(state, [method](uint32_t reg, const void* data, size_t size) {
    return crc32::UpdateBy(method, reg, data, size);
  });
}
BENCHMARK(BM_MemoryMethod)
    ->ArgName("method")
    ->Arg(static_cast<int>(crc32::Method::Slicing8))
    ->Arg(static_cast<int>(crc32::Method::CarrylessFold))
    ->Arg(static_cast<int>(crc32::Method::WideCarrylessFold))
    ->Unit(benchmark::kMicrosecond);

void BM_MemoryByteTable(benchmark::State& state) {
  Checksummer c;
  c.checksum.CRCInit(modChecksum::kPolynomial);
  const auto* table = reinterpret_cast<const uint32_t*>(c.checksum.CrcTable.data());
  InMemory(state, [table](uint32_t reg, const void* data, size_t size) {
    return crc32::UpdateByteTable(reg, data, size, table);
  });
}
BENCHMARK(BM_MemoryByteTable)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
