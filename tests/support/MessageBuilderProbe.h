// What the tests read inside a MessageBuilder: where the message under construction stands.
#pragma once

#include "Ipfix/MessageBuilder.h"

namespace FlowTracking {

struct MessageBuilderProbe {
   static Kivo::Ptr<Pelto::Pkt> const& pkt(MessageBuilder const& b) { return b.pkt(); }
   static std::uint32_t offset(MessageBuilder const& b) { return b.offset(); }
   static TemplateId setId(MessageBuilder const& b) { return b.setId(); }
};

}  // namespace FlowTracking
