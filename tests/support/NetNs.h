// A named network namespace for tests: made with `ip netns add` when the object is created, with
// its loopback up, and removed with `ip netns del` when it is destroyed. Code runs inside it on a
// thread of its own, so the calling thread never changes namespace.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace testsupport {

struct CommandResult {
   int exitCode = -1;  // -1 when the program could not be started or was killed
   bool timedOut = false;
   std::string output;  // stdout and stderr together
   std::string describe(std::vector<std::string> const& argv) const;
};

// Runs argv[0], looked up on PATH, without a shell. Killed when it runs longer than `timeout`.
CommandResult runCommand(std::vector<std::string> const& argv,
                         std::chrono::milliseconds timeout = std::chrono::seconds(10));

class NetNs {
 public:
   // The namespace, or null with the reason in *whyNot when this process may not make one (not
   // privileged, no `ip`, no namespace support).
   static std::unique_ptr<NetNs> create(std::string const& name, std::string* whyNot);
   ~NetNs();
   NetNs(NetNs const&) = delete;
   NetNs& operator=(NetNs const&) = delete;

   std::string const& name() const { return name_; }

   // `ip -n <name> args...`; throws std::runtime_error when it fails.
   void ip(std::vector<std::string> const& args) const;

   // Runs `fn` on a new thread that has entered the namespace and returns its result. Sockets it
   // creates stay in the namespace. Exceptions thrown by `fn` reach the caller.
   template <class F>
   std::invoke_result_t<F&> run(F fn) const {
      using R = std::invoke_result_t<F&>;
      std::exception_ptr error;
      if constexpr (std::is_void_v<R>) {
         std::thread t([&] {
            try {
               enter_();
               fn();
            } catch (...) {
               error = std::current_exception();
            }
         });
         t.join();
         if (error) {
            std::rethrow_exception(error);
         }
      } else {
         std::optional<R> result;
         std::thread t([&] {
            try {
               enter_();
               result.emplace(fn());
            } catch (...) {
               error = std::current_exception();
            }
         });
         t.join();
         if (error) {
            std::rethrow_exception(error);
         }
         return std::move(*result);
      }
   }

   // Inode of the calling thread's network namespace.
   static ino_t currentInode();

 private:
   explicit NetNs(std::string name) : name_(std::move(name)) {}
   // Moves the calling thread into the namespace; throws std::runtime_error.
   void enter_() const;

   std::string name_;
};

}  // namespace testsupport
