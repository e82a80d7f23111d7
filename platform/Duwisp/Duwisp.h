// Duwisp: one trace point, two sinks at the same level. DUWISP_TRACE writes a Kwisp ring
// record when the handle's ring level is on, and the framework's text trace (with file,
// line and function) when its text level is on; the text is built only in that case.
//
//   namespace { KEL_FILE_TRACE_HANDLE("ZorvekDemuxDal") }   // the file's th()
//   DUWISP_TRACE(th(), 8, "Resource type %s id 0x%x", rid.type(), rid.id());
//
// When neither sink is on at that level, a trace point costs one test of the handle's mask.
// Arguments: integers, enums, bools, strings and pointers are stored as they are; any
// other type with a stream output operator is stored as its streamed text.
#pragma once

#include <concepts>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "Kel/Trace.h"
#include "Kwisp/Kwisp.h"

namespace Duwisp {

namespace detail {

template <class T>
concept Streamable = requires(std::ostream& os, const T& v) {
  os << v;
};

// The types stored as they are; any other type is stored as its streamed text.
template <class U>
concept Direct = std::is_same_v<U, bool> || std::is_enum_v<U> || std::is_integral_v<U> ||
    std::is_pointer_v<U> || std::is_convertible_v<const U&, std::string_view>;

template <class I>
Kwisp::Value integer(I v) {
  if constexpr (std::is_signed_v<I>)
    return {Kwisp::Tag::signedInt, static_cast<std::uint64_t>(static_cast<std::int64_t>(v)), {}};
  else
    return {Kwisp::Tag::unsignedInt, static_cast<std::uint64_t>(v), {}};
}

// One argument converted to a Kwisp value. Only a streamed argument holds a text (the value
// points into it), so the others convert without constructing or destroying a string.
template <class U>
class Arg {
 public:
  explicit Arg(const U& x) : value_(convert(x)) {}
  Arg(const Arg&) = delete;
  const Kwisp::Value& value() const { return value_; }

 private:
  static Kwisp::Value convert(const U& x) {
    if constexpr (std::is_same_v<U, bool>) {
      return {Kwisp::Tag::boolean, x ? 1u : 0u, {}};
    } else if constexpr (std::is_enum_v<U>) {
      return integer(static_cast<std::underlying_type_t<U>>(x));
    } else if constexpr (std::is_integral_v<U>) {
      return integer(x);
    } else if constexpr (std::is_pointer_v<U> && std::is_convertible_v<U, std::string_view>) {
      // A null C string (getenv() of an unset variable, say) is traced, not dereferenced.
      return {Kwisp::Tag::string, 0, x ? std::string_view(x) : std::string_view("(null)")};
    } else if constexpr (std::is_convertible_v<const U&, std::string_view>) {
      return {Kwisp::Tag::string, 0, std::string_view(x)};
    } else {
      return {Kwisp::Tag::unsignedInt, reinterpret_cast<std::uintptr_t>(x), {}};
    }
  }
  const Kwisp::Value value_;
};

template <class U>
requires(!Direct<U>) class Arg<U> {
 public:
  explicit Arg(const U& x) {
    static_assert(Streamable<U>, "trace argument needs a stream output operator");
    std::ostringstream os;
    os << x;
    text_ = os.str();
  }
  Arg(const Arg&) = delete;
  Kwisp::Value value() const { return {Kwisp::Tag::string, 0, text_}; }

 private:
  std::string text_;
};

KEL_EXPORT void emitValues(const Kwisp::Descriptor& d, const Kwisp::Value* values,
                           std::size_t count);

}  // namespace detail

// Writes each sink of `d` that is on at its level.
template <class... A>
void emit(const Kwisp::Descriptor& d, const A&... args) {
  if constexpr (sizeof...(A) == 0) {
    detail::emitValues(d, nullptr, 0);
  } else {
    const std::tuple<detail::Arg<std::remove_cvref_t<A>>...> held(args...);
    std::apply(
        [&](const auto&... arg) {
          const Kwisp::Value values[] = {arg.value()...};
          detail::emitValues(d, values, sizeof...(A));
        },
        held);
  }
}

// Writes the ring record of `d` only, each argument encoded straight into the slot: the
// kind of every argument is known here, so nothing is tested for it at run time.
template <class... A>
void record(const Kwisp::Descriptor& d, const A&... args) {
  const std::tuple<detail::Arg<std::remove_cvref_t<A>>...> held(args...);
  Kwisp::RecordWriter w(d);
  std::apply([&](const auto&... arg) { (w.add(arg.value()), ...); }, held);
}

}  // namespace Duwisp

// A trace point binds its handle once, as its descriptor does: the test of a disabled level
// is then a load and a bit test, with no call that would spill the caller's registers.
#define DUWISP_TRACE(handle, level, format, ...)                                                   \
  do {                                                                                             \
    static const ::Kel::TraceHandle& duwispHandle_ = (handle);                                     \
    if (duwispHandle_.anyEnabled(level)) [[unlikely]] {                                            \
      static const ::Kwisp::Descriptor duwispDescriptor_(duwispHandle_, level, __FILE__, __LINE__, \
                                                         __func__, format);                        \
      ::Duwisp::emit(duwispDescriptor_ __VA_OPT__(, ) __VA_ARGS__);                                \
    }                                                                                              \
  } while (0)

// A ring-only trace point: the Kwisp record, never the text trace.
#define KWISP_TRACE(handle, level, format, ...)                                                  \
  do {                                                                                           \
    static const ::Kel::TraceHandle& kwispHandle_ = (handle);                                    \
    if (kwispHandle_.ringEnabled(level)) [[unlikely]] {                                          \
      static const ::Kwisp::Descriptor kwispDescriptor_(kwispHandle_, level, __FILE__, __LINE__, \
                                                        __func__, format);                       \
      ::Duwisp::record(kwispDescriptor_ __VA_OPT__(, ) __VA_ARGS__);                             \
    }                                                                                            \
  } while (0)
