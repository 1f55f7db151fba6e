#include "agent/LinkWatch.h"

#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>

#include "Kivo/Kivo.h"
#include "agent/Log.h"

namespace Agent {

namespace {

void reportLink(nl_object* obj, LinkWatch::LinkIs const& linkIs) {
   auto* link = reinterpret_cast<rtnl_link*>(obj);
   char const* name = rtnl_link_get_name(link);
   int const index = rtnl_link_get_ifindex(link);
   if (name && index > 0) {
      linkIs(static_cast<std::uint32_t>(index), name);
   }
}

}  // namespace

LinkWatch::LinkWatch(Orbo::EventLoop& loop, LinkIs linkIs, LinkDel linkDel)
    : loop_(loop), linkIs_(std::move(linkIs)), linkDel_(std::move(linkDel)) {
   if (int err = nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, NL_AUTO_PROVIDE, &mngr_); err < 0) {
      throw Kivo::Exception(std::string("rtnetlink: ") + nl_geterror(err));
   }
   if (int err = nl_cache_mngr_add(mngr_, "route/link", &LinkWatch::handleChange_, this, &cache_);
       err < 0) {
      nl_cache_mngr_free(mngr_);
      throw Kivo::Exception(std::string("rtnetlink links: ") + nl_geterror(err));
   }
   nl_cache_foreach(
       cache_,
       [](nl_object* obj, void* arg) { reportLink(obj, static_cast<LinkWatch*>(arg)->linkIs_); },
       this);
   fd_ = nl_cache_mngr_get_fd(mngr_);
   loop_.fdIs(fd_, [this] {
      if (int err = nl_cache_mngr_data_ready(mngr_); err < 0) {
         log(Severity::warning, std::string("rtnetlink: ") + nl_geterror(err));
      }
   });
}

LinkWatch::~LinkWatch() {
   loop_.fdDel(fd_);
   nl_cache_mngr_free(mngr_);  // frees the cache too
}

void LinkWatch::handleChange_(nl_cache*, nl_object* obj, int action, void* arg) {
   auto* self = static_cast<LinkWatch*>(arg);
   if (action == NL_ACT_DEL) {
      int const index = rtnl_link_get_ifindex(reinterpret_cast<rtnl_link*>(obj));
      if (index > 0) {
         self->linkDel_(static_cast<std::uint32_t>(index));
      }
      return;
   }
   reportLink(obj, self->linkIs_);
}

}  // namespace Agent
