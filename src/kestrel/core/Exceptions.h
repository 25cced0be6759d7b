// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace Mox {

/// Base of everything the library throws. `what()` is ready to print.
///
/// Each class carries the framework's identifier of its kind, which a `Mox::Expect` scope names where the exception is
/// expected.
class Exception : public std::exception {
public:
   explicit Exception(std::string text, unsigned id = 0) : text_(std::move(text)), id_(id) {}
   char const* what() const noexcept override { return text_.c_str(); }
   /// The framework's number of this kind of failure; 0 where nobody expects it.
   unsigned id() const noexcept { return id_; }

private:
   std::string text_;
   unsigned id_;
};

/// A value outside the range of its type. Nothing has been stored.
class RangeException : public Exception {
public:
   using Exception::Exception;
};

/// A number that is no enumerator of its enumeration.
class EnumException final : public RangeException {
public:
   using RangeException::RangeException;
};

/// A member of that name exists with other constructor parameters.
class NameInUseException final : public Exception {
public:
   static constexpr unsigned kind = 16;
   explicit NameInUseException(std::string text) : Exception(std::move(text), kind) {}
};

/// A fault of the program, in the library or in how it is called; data never causes it.
class InternalException : public Exception {
public:
   using Exception::Exception;
};

/// A write to a mirror whose owner is another process.
class ReadOnlyException final : public Exception {
public:
   using Exception::Exception;
};

/// A type was asked for that the object does not have, or that nobody registered.
class TypeException final : public Exception {
public:
   using Exception::Exception;
};

/// A reference whose target has no identifier on the stream yet.
class NoEntityIdException final : public Exception {
public:
   static constexpr unsigned kind = 48;
   explicit NoEntityIdException(std::string text) : Exception(std::move(text), kind) {}
};

/// A record names an entity that does not fit the attribute.
class AttrLogEntityException final : public Exception {
public:
   using Exception::Exception;
};

/// A record that can't be written or read as it is; the record alone is at fault, not the stream.
class AttrLogRecordException : public Exception {
public:
   using Exception::Exception;
};

/// Bytes that break the framing or the handshake: the connection ends, with this text as its reason.
class ProtocolException final : public Exception {
public:
   using Exception::Exception;
};

[[noreturn]] void throwRangeException(std::string_view text);
[[noreturn]] void throwNameInUseException(std::string_view text);
[[noreturn]] void throwInternalException(std::string_view text);

/// Keeps the first exception of several steps that have to be made whatever the others throw.
/// *Cost*: nothing where nothing is thrown.
class FirstException {
public:
   /// Makes the step, and keeps what it throws where it is the first.
   template <class Step> void run(Step&& step) {
      try {
         std::forward<Step>(step)();
      } catch (...) {
         keep();
      }
   }
   /// Keeps the exception that is being handled.
   void keep() noexcept {
      if (!first_)
         first_ = std::current_exception();
   }
   /// To be called behind the last step. \throws the first exception, if there was one
   void rethrow() const {
      if (first_) [[unlikely]]
         std::rethrow_exception(first_);
   }

private:
   std::exception_ptr first_;
};

/// Says that exceptions of kind `id` are expected until the scope ends, so that nobody reports them as failures.
/// Identifier 0 expects nothing, and the delivery pass therefore opens no scope around each reactor.
class Expect {
public:
   explicit Expect(unsigned id) noexcept : id_(id) {
      if (id != 0)
         enter();
   }
   ~Expect() {
      if (id_ != 0)
         leave();
   }
   Expect(Expect const&) = delete;
   Expect& operator=(Expect const&) = delete;

   /// Whether an open scope of this thread names `id`.
   static bool isExpected(unsigned id) noexcept;

private:
   void enter() noexcept;
   void leave() noexcept;

   unsigned id_;
   Expect const* outer_ = nullptr;
};

} // namespace Mox
