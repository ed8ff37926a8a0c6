#include "types/MvpnSource.h"

#include <type_traits>

#include "platform/ValueForm.h"

namespace Routing::Multicast {

static_assert(std::is_trivially_copyable_v<MvpnSource>);

MvpnSource MvpnSource::readFrom(Oro::CharRange& in) {
  Oro::ValueFormReader reader(in, kTypeName);
  MvpnSource s;
  s.source_ = reader.attr("source", Nevo::IpGenAddr::readFrom);
  s.umhPrefix_ = reader.attr("umhPrefix", Nevo::IpGenPrefix::readFrom);
  s.sourceFlags_ = reader.attr("sourceFlags", SourceFlags::readFrom);
  reader.end();
  return s;
}

MvpnSource::MvpnSource(Oro::CharRange& in) {
  *this = readFrom(in);
  in.expectEnd();
}

uint32_t MvpnSource::hash(uint32_t seed) const {
  uint32_t h = Oro::hashMix(seed, source_.hash(seed));
  h = Oro::hashMix(h, umhPrefix_.hash(seed));
  return Oro::hashFinish(Oro::hashMix(h, sourceFlags_.value()));
}

std::string MvpnSource::toStrep() const {
  std::string out = fmt::format("{}: UMH: {}", source_, umhPrefix_);
  sourceFlags_.appendDisplay(out);
  return out;
}

std::string MvpnSource::toValueForm() const {
  return Oro::ValueFormWriter(kTypeName)
      .attr("source", source_.toStrep())
      .attr("umhPrefix", umhPrefix_.toStrep())
      .attr("sourceFlags", sourceFlags_.toStrep())
      .done();
}

}  // namespace Routing::Multicast
