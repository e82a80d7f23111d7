// Test doubles shared by the DAL tests: a GoogleMock requester, a fake device helper with a
// shadow of its own, a RequesterDal whose shadow hooks use that helper, a capture of one trace
// handle's lines, an environment-variable guard, the pattern of an assertion's text for death
// tests and a reader of state dumps.
#pragma once

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Kel/Trace.h"
#include "Zorvek/RequesterDal.h"

namespace Zorvek::doubles {

using Lines = std::vector<std::pair<unsigned, std::string>>;
using Rid = const PhysicalResourceId&;

constexpr PhysicalResourceId kTable{ResourceType::tableResource_, 0x41};
constexpr PhysicalResourceId kNormalized{ResourceType::tableResource_, 0x40};
constexpr PhysicalResourceId kRegister{ResourceType::registerResource_, 0x7};
constexpr DeviceOffset kTableOffset = 0x1000;
constexpr DeviceOffset kRegisterOffset = 0x2000;  // this offset and above: the register
constexpr U16 kEntry = 8;
constexpr PhysicalAddr kPhysAddr = 0xfeed0000;
const std::vector<U8> kData = {1, 2, 3, 4, 5, 6, 7, 8};

class MockRequester : public Requester {
  using Mask = const TargetMask&;
  using Addr = const PhysicalAddr&;

 public:
  MockRequester() : Requester("queue", 3, DalId(1), Kel::allocate<DalProcessingStatus>(DalId(1))) {}
  MOCK_METHOD(S64, read, (DeviceId, Rid, DeviceOffset, void*, U32), (override));
  MOCK_METHOD(S64, write, (Mask, Rid, DeviceOffset, void*, const void*, U32, bool), (override));
  MOCK_METHOD(S64, blockingWrite, (Mask, Rid, DeviceOffset, void*, const void*, U32, bool),
              (override));
  MOCK_METHOD(S64, bulkRead, (DeviceId, Rid, DeviceOffset, Addr, U32, U32), (override));
  MOCK_METHOD(S64, bulkWrite, (Mask, Rid, DeviceOffset, Addr, const void*, U32, U32), (override));
  MOCK_METHOD(void, waitForCmdIndex, (U64), (override));
  using Requester::takeCmdIndex;
};

// One table below kRegisterOffset, normalised to kNormalized, one register from it on; the
// shadow maps an offset to the bytes last written there.
class FakeHelper : public DalHelper {
 public:
  PhysicalResourceId resourceId(DeviceOffset offset, void*) const override {
    return offset < kRegisterOffset ? kTable : kRegister;
  }
  PhysicalResourceId normalizedResourceId(Rid r) const override {
    return r == kTable ? kNormalized : r;
  }
  bool cacheable(DeviceId, Rid) const override {
    // Stands for a notification that switches the hardware off in the middle of an access.
    if (switchOffOnCacheable) switchOffOnCacheable->hwAccessAllowedIs(false);
    return isCacheable;
  }
  U32 memoryEntrySizeBytes(DeviceId, Rid) const override { return entrySize; }
  PhysicalAddr physicalAddr(DeviceId, void*) const override { return kPhysAddr; }
  void verifyOptArgMapping(DeviceId, Rid rid, DeviceOffset offset, void*) const override {
    verified.emplace_back(rid, offset);
  }
  S32 shadowRead(DeviceId, DeviceOffset offset, U16 size, void* data, void*) const override {
    auto it = shadow.find(offset);
    if (it == shadow.end()) return -1;
    std::memcpy(data, it->second.data(), std::min<std::size_t>(size, it->second.size()));
    return 0;
  }
  S32 shadowWrite(DeviceId, DeviceOffset offset, U16 size, const void* data, void*) override {
    if (failShadowWrite) return -1;
    shadow[offset].assign(static_cast<const U8*>(data), static_cast<const U8*>(data) + size);
    return 0;
  }

  bool isCacheable = true;
  bool failShadowWrite = false;
  U32 entrySize = kEntry;
  Dal* switchOffOnCacheable = nullptr;
  std::map<DeviceOffset, std::vector<U8>> shadow;
  mutable std::vector<std::pair<PhysicalResourceId, DeviceOffset>> verified;
};

// Shadow hooks over the helper's shadow, recording the sizes they are handed. Its
// dataMaskSelector hands out a mask of its own only when told to, and otherwise answers as
// the base does.
class ShadowDal : public RequesterDal {
 public:
  ShadowDal(const Kel::Ptr<Requester>& r, bool handOutMask, Kel::Name name = "shadowDal")
      : RequesterDal(std::move(name), r), handOutMask_(handOutMask) {}
  S32 doReadFromShadow(DeviceId d, DeviceOffset o, U16 size, void* data, void* optArg) override {
    shadowSizes.push_back(size);
    return helper()->shadowRead(d, o, size, data, optArg);
  }
  S32 doWriteToShadow(DeviceId d, DeviceOffset o, U16 size, const void* data,
                      void* optArg) override {
    shadowSizes.push_back(size);
    return helper()->shadowWrite(d, o, size, data, optArg);
  }
  U8* dataMaskSelector(DeviceOffset offset, void* optArg, U16 size) override {
    if (!handOutMask_) return RequesterDal::dataMaskSelector(offset, optArg, size);
    U8* mask = new U8[size]();
    maskHandedOut = mask;
    return mask;
  }

  std::vector<U16> shadowSizes;
  const void* maskHandedOut = nullptr;

 private:
  bool handOutMask_;
};

// Turns every text level of one trace handle (the requester DAL's by default) on for one
// scope and captures its lines.
class DalTrace : public Kel::TraceCapture {
 public:
  explicit DalTrace(std::string handle = "ZorvekRequesterDal") : handle_(std::move(handle)) {
    Kel::traceLevelsIs(handle_ + "/0-9");
  }
  ~DalTrace() {
    if (Kel::TraceHandle* h = Kel::traceHandle(handle_)) h->levelsIs(0);
  }
  Lines lines() const {
    Lines out;
    for (const Kel::TraceRecord& r : records())
      if (r.handle == handle_) out.emplace_back(r.level, r.message);
    return out;
  }

 private:
  std::string handle_;
};

// Sets an environment variable to `value` (which may be empty) for one scope, or clears it
// for a null `value`, then restores what was there.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) saved_ = old;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { saved_ ? setenv(name_, saved_->c_str(), 1) : unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> saved_;
};

// The death-test pattern of an assertion's text, matched literally.
inline std::string literal(std::string_view text) {
  std::string out;
  for (char ch : text) {
    if (std::strchr("\\^$.|?*+()[]{}", ch)) out += '\\';
    out += ch;
  }
  return out;
}
inline std::string assertion(std::string_view text) {
  return "Assertion failed: " + literal(text) + ", file";
}

// What `show` writes to the file descriptor it is handed, read back through a pipe (state
// dumps are small enough for the pipe's buffer).
inline std::string dumpOf(const std::function<void(U32 fd)>& show) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  show(static_cast<U32>(fds[1]));
  close(fds[1]);
  std::string out;
  char buf[256];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  return out;
}

}  // namespace Zorvek::doubles
