#include "tools/kernelbed/ncitag.h"

namespace kernelbed {

namespace {

enum Technology : uint8_t { A = 0, B = 1, F = 2, V = 6 };
enum Protocol : uint8_t { T1T = 1, T2T = 2, T3T = 3, IsoDep = 4, T5T = 6 };
enum Interface : uint8_t { FrameInterface = 1, IsoDepInterface = 2 };

void DescribeA(NciTag& tag, const TagWords& words) {
  const auto& uid = words.Uid();
  const uint8_t lengthOfUid = uid.size() == 7 ? 0x44 : uid.size() == 10 ? 0x84 : 0x04;
  tag.technology = Technology::A;
  tag.parameters = words.Kind() == "a1" ? Bytes{0x00, 0x0c} : Bytes{lengthOfUid, 0x00};
  tag.parameters.push_back(static_cast<uint8_t>(uid.size()));
  Append(tag.parameters, uid);
  const auto* selRes = words.Kind() == "a4" ? "20" : words.Kind() == "ax" ? "08" : "00";
  Append(tag.parameters, {1, words.ByteOption("sak", selRes)});
  if (words.Kind() == "a4") {
    tag.interface = Interface::IsoDepInterface;
    tag.protocol = Protocol::IsoDep;
    tag.activation = {4, 0x75, 0x77, 0x81, 0x02};
  } else if (words.Kind() == "ax") {
    tag.protocol = words.ByteOption("protocol", "80");
  } else {
    tag.protocol = words.Kind() == "a1" ? Protocol::T1T : Protocol::T2T;
  }
}

}  // namespace

NciTag::NciTag(const TagWords& words) : interface(Interface::FrameInterface) {
  const auto& uid = words.Uid();
  switch (words.Kind().front()) {
    case 'a':
      DescribeA(*this, words);
      break;
    case 'b':
      technology = Technology::B;
      protocol = Protocol::IsoDep;
      interface = Interface::IsoDepInterface;
      parameters = {11};
      Append(parameters, uid);
      Append(parameters, {0x00, 0x00, 0x00, 0x00, 0x80, 0x80, 0x71});
      activation = {1, 0};
      break;
    case 'f':
      technology = Technology::F;
      protocol = Protocol::T3T;
      parameters = {1, 18};  // at 212 kbit/s
      Append(parameters, uid);
      Append(parameters, {0x01, 0x20, 0x22, 0x04, 0x27, 0x67, 0x4e, 0xff, 0x12, 0xfc});
      break;
    default:
      technology = Technology::V;
      protocol = Protocol::T5T;
      parameters = {0, 0};                                  // DSFID
      Append(parameters, Bytes(uid.rbegin(), uid.rend()));  // last byte first
  }
}

}  // namespace kernelbed
