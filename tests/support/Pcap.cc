#include "support/Pcap.h"

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "support/Command.h"

namespace testsupport {

void writePcap(std::string const& path, std::vector<Datagram> const& datagrams) {
   Datagram const first = datagrams.empty() ? Datagram{} : datagrams.front();
   // text2pcap's input: each packet as a hex dump whose offsets start again at 0.
   std::string const hex = path + ".hex";
   std::ofstream out(hex);
   for (Datagram const& d : datagrams) {
      for (std::size_t i = 0; i < d.payload.size(); ++i) {
         char text[24];
         if (i % 16 == 0) {
            std::snprintf(text, sizeof(text), "%s%06zx", i ? "\n" : "", i);
            out << text;
         }
         std::snprintf(text, sizeof(text), " %02x", d.payload[i]);
         out << text;
      }
      out << "\n";
   }
   out.close();
   bool const v6 = first.src.find(':') != std::string::npos;
   auto const r = runCommand({"text2pcap", "-q", "-u",
                              std::to_string(first.srcPort) + "," + std::to_string(first.dstPort),
                              v6 ? "-6" : "-4", first.src + "," + first.dst, hex, path});
   std::remove(hex.c_str());
   if (!r.ok()) {
      throw std::runtime_error("text2pcap failed: " + r.describe());
   }
}

}  // namespace testsupport
