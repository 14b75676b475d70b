// Host services: messages, the progress output stream, stack-or-heap scratch
// blocks, random numbers, 3-D rotation, RMSD and the version registry.
//
// The message sink and the output target are the only process-wide state the
// library has; both belong to this layer and are replaced explicitly.
#ifndef LXOPT_HOST_H
#define LXOPT_HOST_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "lxopt/lxopt_export.h"

namespace LxOpt {

// ---------------------------------------------------------------- messages

// Severity of a message, in increasing order.
enum class LxMessageLevel { Info, Warning, Error, Fatal };
// Receiver of every message: the level and the formatted text.
using LxMessageSink = std::function<void(LxMessageLevel, const std::string&)>;

// Installs the receiver of every message and returns the one it replaces.
// An empty sink restores the default, which writes "LxOpt <level>: <text>"
// lines to std::cerr. The text handed to a sink is the formatted message
// exactly: no prefix, no added newline.
LXOPT_API LxMessageSink LxSetMessageSink(LxMessageSink sink);

// Name of a level as the default sink prints it ("info", "warning", ...).
LXOPT_API const char* LxMessageLevelName(LxMessageLevel level);

// Reporting interface used through the single object LxThrow. Each member
// formats its printf-style arguments and hands the text to the current sink
// with its level; Info, Warning and Error then return to the caller.
class LXOPT_API LxErrorHandler {
 public:
  void Info(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void Warning(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void Error(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Hands the message to the sink, then aborts the process unless the sink
  // leaves by throwing.
  [[noreturn]] void Fatal(const char* format, ...) __attribute__((format(printf, 2, 3)));
};
// The library's one reporting object; stateless.
LXOPT_API extern LxErrorHandler LxThrow;

// ---------------------------------------------------------------- output

// Progress text of the printing checkpoints and of simulated annealing.
// Each operator<< writes its argument with the target's own formatting to
// the current target (see LxSetOutputStream) and returns the stream; a
// manipulator such as lxendl is applied to the stream.
class LXOPT_API lxostream {
 public:
  lxostream& operator<<(const char* text);
  lxostream& operator<<(const std::string& text);
  lxostream& operator<<(char c);
  lxostream& operator<<(int value);
  lxostream& operator<<(unsigned int value);
  lxostream& operator<<(long value);
  lxostream& operator<<(unsigned long value);
  lxostream& operator<<(long long value);
  lxostream& operator<<(unsigned long long value);
  lxostream& operator<<(double value);
  lxostream& operator<<(lxostream& (*manipulator)(lxostream&));
  // Flushes the current target.
  void flush();
};
// The library's progress stream.
LXOPT_API extern lxostream lxout;
// Writes a newline to stream, flushes it and returns it.
LXOPT_API lxostream& lxendl(lxostream& stream);
// Redirects lxout; nullptr restores std::cout. Returns the previous target.
LXOPT_API std::ostream* LxSetOutputStream(std::ostream* target);

// ---------------------------------------------------------------- scratch

// Blocks up to this many bytes (alignment slack included) live on the
// caller's stack. 16 KiB holds the two-vector work block of a line search
// for n up to about a thousand variables, and even with four blocks alive at
// once (minimum finder -> BFGS -> line search) stays far below the smallest
// thread stacks in common use (128 KiB).
constexpr std::size_t kLxAllocaThreshold = 16384;
// Bytes reserved for aligning a block; part of the size compared with the
// threshold.
constexpr std::size_t kLxAllocaSlack = 16;

// Returns the stack threshold in bytes (kLxAllocaThreshold).
LXOPT_API std::size_t LxGetAllocaThreshold();

// One scratch block for one call: in the holder's own storage (so on the
// caller's stack) when bytes + kLxAllocaSlack <= LxGetAllocaThreshold(), on
// the heap otherwise. The heap block, and only that, is freed when the holder
// is destroyed or re-allocated. Not copyable.
class LXOPT_API LxMallocaPtr {
 public:
  // Holds no block.
  LxMallocaPtr() = default;
  // Allocates bytes at once; check get() for nullptr.
  explicit LxMallocaPtr(std::size_t bytes) { Allocate(bytes); }
  ~LxMallocaPtr() { Release(); }
  LxMallocaPtr(const LxMallocaPtr&) = delete;
  LxMallocaPtr& operator=(const LxMallocaPtr&) = delete;

  // Drops any block held, then returns a block of bytes, or nullptr when the
  // heap could not supply it.
  void* Allocate(std::size_t bytes);
  // Room for count doubles; nullptr when count * 8 overflows or the heap
  // could not supply it.
  double* AllocateDoubles(std::size_t count);
  // Frees a heap block and leaves the holder empty.
  void Release();

  // The current block (nullptr when empty), raw or as doubles.
  void* get() const { return block_; }
  double* doubles() const { return static_cast<double*>(block_); }
  // True when a block is held and it lives in the holder's own storage.
  bool OnStack() const { return block_ != nullptr && heap_ == nullptr; }

 private:
  alignas(64) unsigned char local_[kLxAllocaThreshold - kLxAllocaSlack];
  void* heap_ = nullptr;
  void* block_ = nullptr;
};

// ---------------------------------------------------------------- random

// 32-bit Mersenne Twister (MT19937); default seed 5489.
class LXOPT_API MtRng {
 public:
  using result_type = std::uint32_t;
  static constexpr std::uint32_t kDefaultSeed = 5489u;

  explicit MtRng(std::uint32_t seed = kDefaultSeed) : engine_(seed) {}
  // Restarts the sequence from seed.
  void Seed(std::uint32_t seed) { engine_.seed(seed); }
  // Next 32-bit draw; min() and max() give its range, as for std engines.
  result_type operator()() { return static_cast<result_type>(engine_()); }
  static constexpr result_type min() { return 0u; }
  static constexpr result_type max() { return 0xffffffffu; }

 private:
  std::mt19937 engine_;
};

// Uniform doubles in [low, high) with 53 random bits drawn from an MtRng
// (two 32-bit draws per value).
class LXOPT_API LxUniformDoubleRNG {
 public:
  // The range [low, high); low <= high is the caller's to keep.
  explicit LxUniformDoubleRNG(double low = 0.0, double high = 1.0) : low_(low), high_(high) {}
  // Next value: low + u (high - low), u in [0, 1); advances engine by two
  // draws.
  double operator()(MtRng& engine) const;
  // The range bounds as constructed.
  double low() const { return low_; }
  double high() const { return high_; }

 private:
  double low_;
  double high_;
};

// Uniform single-precision numbers in [0, 1) with a settable integer seed.
class LXOPT_API LxRandom {
 public:
  static constexpr std::uint32_t kDefaultSeed = 1u;
  // seedNow = true seeds with kDefaultSeed; false leaves the engine at its
  // own default state (seed 5489). Either way the sequence is reproducible.
  explicit LxRandom(bool seedNow = true);
  // Restarts the sequence from seed.
  void Seed(std::uint32_t seed) { engine_.Seed(seed); }
  // Next value in [0, 1) with 24 random bits (one engine draw); never 1.
  float NextFloat();

 private:
  MtRng engine_;
};

// ---------------------------------------------------------------- geometry

// Rotates count points (x, y, z triples) in place: p -> M p, with M a
// row-major 3 x 3 matrix.
LXOPT_API void LxGeom3DRotate(double* coords, unsigned int count, const double* matrix);

// Root-mean-square distance between two sets of count points.
// superpose = false: the plain RMSD of the coordinates as given.
// superpose = true: both sets are centred on their (weighted) centroids and b
// is rotated onto a by the optimal proper rotation (Kabsch) first.
// weights: count per-point weights, or nullptr for equal weights.
// rotation: if not null and superpose is true, receives the row-major 3 x 3
// rotation R that maps centred b onto centred a (identity otherwise).
// count = 0 gives 0.0.
LXOPT_API double LxRMSD(const double* a, const double* b, unsigned int count, bool superpose,
                        const double* weights = nullptr, double* rotation = nullptr);

// ---------------------------------------------------------------- versions

// What one library reports about itself: its family, its name and its
// release string.
struct LxVersionRecord {
  std::string family;
  std::string library;
  std::string release;
};
// Function that returns a library's record when queried.
using LxVersionFunction = LxVersionRecord (*)();

// Keeps fn for later queries; registering the same function twice keeps one.
LXOPT_API void LxRegisterVersion(LxVersionFunction fn);
// The records of every registered function, in registration order.
LXOPT_API std::vector<LxVersionRecord> LxRegisteredVersions();

}  // namespace LxOpt

#endif  // LXOPT_HOST_H
