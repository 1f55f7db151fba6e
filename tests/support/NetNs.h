// A named network namespace for tests, made with `ip netns add` (loopback up) and removed with
// `ip netns del`. Code runs inside it on a thread of its own; the caller never changes namespace.
#pragma once

#include <sys/types.h>

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace testsupport {

class NetNs {
 public:
   // Null with the reason in *whyNot when this process may not make one (unprivileged, no `ip`).
   static std::unique_ptr<NetNs> create(std::string const& name, std::string* whyNot);
   ~NetNs();
   NetNs(NetNs const&) = delete;
   NetNs& operator=(NetNs const&) = delete;

   std::string const& name() const { return name_; }

   // `ip -n <name> args...`; throws std::runtime_error when it fails.
   void ip(std::vector<std::string> const& args) const;

   // Runs `fn` on a new thread inside the namespace (so are sockets it makes); returns or rethrows.
   template <class F>
   std::invoke_result_t<F&> run(F fn) const {
      std::packaged_task<std::invoke_result_t<F&>()> task([&] {
         enter_();
         return fn();
      });
      auto result = task.get_future();
      std::thread(std::move(task)).join();
      return result.get();
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
