#include <gtest/gtest.h>

#include "Kivo/Attr.h"
#include "Kivo/Kivo.h"
#include "Orbo/TaskScheduler.h"
#include "Pelto/IpfixWire.h"
#include "Trace/Trace.h"

TEST(Smoke, Builds) {
   Kivo::Value<int> v;
   int seen = 0;
   Kivo::Reactor r;
   r.watch(v.signal(), [&] { ++seen; });
   v.is(3);
   EXPECT_EQ(seen, 1);
}
