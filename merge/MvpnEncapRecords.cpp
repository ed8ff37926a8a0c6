#include "merge/MvpnEncapRecords.h"

#include "platform/ValueForm.h"

namespace Routing::Multicast {

std::string quotedStrep(const std::string& s) {
  std::string out;
  out.reserve(s.size() + 2);
  out += '\'';
  for (char c : s) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  out += '\'';
  return out;
}

std::string MvpnEncapTunnel::toStrep() const {
  return Oro::ValueFormWriter(kTypeName)
      .attr("routeKey", routeKey_.toStrep())
      .attr("encapData", quotedStrep(encapData_))
      .done();
}

std::string MvpnEncapIntfTunnel::toStrep() const {
  return Oro::ValueFormWriter(kTypeName)
      .attr("routeIntfKey", routeIntfKey_.toStrep())
      .attr("encapData", quotedStrep(encapData_))
      .done();
}

}  // namespace Routing::Multicast
