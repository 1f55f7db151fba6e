// Follows the host's network links (index and name) through rtnetlink, in the agent's own
// network namespace, and reports every link present at start and every later addition, rename
// and removal, through an event loop.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Orbo/EventLoop.h"

struct nl_cache;
struct nl_cache_mngr;
struct nl_object;

namespace Agent {

class LinkWatch {
 public:
   using LinkIs = std::function<void(std::uint32_t index, std::string const& name)>;
   using LinkDel = std::function<void(std::uint32_t index)>;

   // Reports every present link through `linkIs` before returning, then follows changes.
   // Throws Kivo::Exception when rtnetlink cannot be used. The loop must outlive the watch.
   LinkWatch(Orbo::EventLoop& loop, LinkIs linkIs, LinkDel linkDel);
   ~LinkWatch();
   LinkWatch(LinkWatch const&) = delete;
   LinkWatch& operator=(LinkWatch const&) = delete;

 private:
   static void handleChange_(nl_cache* cache, nl_object* obj, int action, void* arg);

   Orbo::EventLoop& loop_;
   LinkIs linkIs_;
   LinkDel linkDel_;
   nl_cache_mngr* mngr_ = nullptr;
   nl_cache* cache_ = nullptr;
   int fd_ = -1;
};

}  // namespace Agent
