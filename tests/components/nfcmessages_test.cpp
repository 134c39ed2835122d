#include "src/components/nfcmessages.h"

#include <gmock/gmock.h>
#include <linux/genetlink.h>
#include <linux/nfc.h>

#include <algorithm>
#include <cstring>

namespace {

/// A netlink message with a generic-netlink header and these bytes as attributes.
std::vector<uint8_t> Message(uint8_t command, const std::vector<uint8_t>& attributes) {
  std::vector<uint8_t> bytes(NLMSG_HDRLEN + GENL_HDRLEN + attributes.size());
  bytes[NLMSG_HDRLEN] = command;
  std::copy(attributes.begin(), attributes.end(), bytes.begin() + NLMSG_HDRLEN + GENL_HDRLEN);
  nlmsghdr header{};
  header.nlmsg_len = static_cast<uint32_t>(bytes.size());
  header.nlmsg_type = 20;
  std::memcpy(bytes.data(), &header, sizeof(header));
  return bytes;
}

nlmsghdr* Header(std::vector<uint8_t>& bytes) {
  return reinterpret_cast<nlmsghdr*>(bytes.data());
}

/// The message cut after `length` bytes. Its header states that length.
std::vector<uint8_t> Cut(std::vector<uint8_t> bytes, size_t length) {
  bytes.resize(length);
  bytes.shrink_to_fit();
  if (length >= sizeof(nlmsghdr)) {
    Header(bytes)->nlmsg_len = static_cast<uint32_t>(length);
  }
  return bytes;
}

// A device as the kernel lists it: name "nfc0", index 0, protocols 0xde, powered 0, RF mode 2.
const std::vector<uint8_t> kDevice{9,  0, 2, 0, 'n', 'f', 'c', '0', 0,  0,    0, 0, 8, 0, 1,
                                   0,  0, 0, 0, 0,   8,   0,   3,   0,  0xde, 0, 0, 0, 5, 0,
                                   12, 0, 0, 0, 0,   0,   5,   0,   11, 0,    2, 0, 0, 0};

// A Type 2 tag: target index 0, protocols 0x04, SENS_RES, SEL_RES, NFCID1 04 A1 2B 5C.
const std::vector<uint8_t> kType2{8,    0, 4, 0, 0, 0, 0, 0, 8, 0, 3, 0, 4, 0, 0, 0, 6,    0,    5,    0,
                                  0x44, 0, 0, 0, 5, 0, 6, 0, 0, 0, 0, 0, 8, 0, 7, 0, 0x04, 0xa1, 0x2b, 0x5c};

// An ISO 15693 tag: protocols 0x80, DSFID, UID as it comes over the air, last byte first.
const std::vector<uint8_t> kIso15693{8, 0, 3,  0, 0x80, 0, 0, 0, 5, 0, 26, 0, 0, 0,
                                     0, 0, 12, 0, 27,   0, 1, 2, 3, 4, 5,  6, 7, 0xe0};

std::vector<uint8_t> Joined(std::vector<uint8_t> first, const std::vector<uint8_t>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

std::string Uid(const std::vector<uint8_t>& attributes) {
  auto message = Message(NFC_CMD_GET_TARGET, attributes);
  const auto target = DecodeTarget(Header(message));
  return target ? FormatUid(target->uid) : "no target";
}

}  // namespace

TEST(NfcMessages, ReadADeviceAndAnEvent) {
  auto message = Message(NFC_CMD_GET_DEVICE, kDevice);
  const auto device = DecodeDevice(Header(message));
  ASSERT_TRUE(device);
  EXPECT_EQ(device->index, 0U);
  EXPECT_EQ(device->name, "nfc0");
  EXPECT_EQ(device->protocols, 0xdeU);
  EXPECT_FALSE(device->powered);

  auto event = Message(NFC_EVENT_TARGETS_FOUND, {8, 0, 1, 0, 7, 0, 0, 0});
  EXPECT_EQ(DecodeCommand(Header(event)), NFC_EVENT_TARGETS_FOUND);
  EXPECT_EQ(DecodeDeviceIndex(Header(event)), 7U);
  auto withoutDevice = Message(NFC_EVENT_TARGETS_FOUND, {});
  EXPECT_FALSE(DecodeDeviceIndex(Header(withoutDevice)));
  auto nameWithoutEnd = Message(
      NFC_CMD_GET_DEVICE, {8, 0, 2, 0, 'n', 'f', 'c', '0', 8, 0, 1, 0, 0, 0, 0, 0, 8, 0, 3, 0, 0, 0, 0, 0});
  EXPECT_FALSE(DecodeDevice(Header(nameWithoutEnd)));
}

TEST(NfcMessages, ReadTheUidOfEveryTechnology) {
  EXPECT_EQ(Uid(kType2), "04A12B5C");
  EXPECT_EQ(Uid(kIso15693), "E007060504030201");
  EXPECT_EQ(Uid(Joined(kIso15693, {8, 0, 7, 0, 0x04, 0xa1, 0x2b, 0x5c})),
            "04A12B5C");                                  // the NFCID1 goes first
  EXPECT_EQ(Uid({8, 0, 3, 0, 8, 0, 0, 0}), "");           // FeliCa: none
  EXPECT_EQ(Uid({5, 0, 6, 0, 0, 0, 0, 0}), "no target");  // no protocols
}

TEST(NfcMessages, AUidOfAnImpossibleLengthIsIgnored) {
  const std::vector<uint8_t> mifare{8, 0, 3, 0, 4, 0, 0, 0};
  std::vector<uint8_t> nfcid1{14, 0, 7, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0, 0};
  EXPECT_EQ(Uid(Joined(mifare, nfcid1)), "0102030405060708090A");
  nfcid1[0] = 15;  // eleven bytes
  EXPECT_EQ(Uid(Joined(mifare, nfcid1)), "");
  EXPECT_EQ(Uid(Joined(mifare, {4, 0, 7, 0})), "");
  EXPECT_EQ(Uid(Joined(mifare, {11, 0, 27, 0, 1, 2, 3, 4, 5, 6, 7, 0})), "");
  EXPECT_EQ(Uid(Joined(mifare, {13, 0, 27, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0, 0})), "");
}

TEST(NfcMessages, FindTheGroupByItsWholeName) {
  // Groups in the kernel's nesting: "events" with two ids, one that is damaged, "eve" with id 1, "events"
  // with id 3.
  const std::vector<uint8_t> groups{
      92, 0, 7, 0, 32, 0, 4, 0, 8,  0, 2, 0, 9,   0,   0,   0,  //
      8,  0, 2, 0, 9,  0, 0, 0, 11, 0, 1, 0, 'e', 'v', 'e', 'n', 't', 's', 0,   0,   12,  0,   3, 0,
      99, 0, 2, 0, 1,  0, 0, 0,                                                     //
      20, 0, 1, 0, 8,  0, 2, 0, 1,  0, 0, 0, 8,   0,   1,   0,   'e', 'v', 'e', 0,  //
      24, 0, 2, 0, 8,  0, 2, 0, 3,  0, 0, 0, 11,  0,   1,   0,   'e', 'v', 'e', 'n', 't', 's', 0, 0};
  auto message = Message(CTRL_CMD_NEWFAMILY, groups);
  EXPECT_EQ(DecodeMulticastGroup(Header(message), "events"), 3U);
  EXPECT_FALSE(DecodeMulticastGroup(Header(message), "event"));
  auto empty = Message(CTRL_CMD_NEWFAMILY, {});
  EXPECT_FALSE(DecodeMulticastGroup(Header(empty), "events"));
}

TEST(NfcMessages, AreReadSafelyAtEveryLength) {
  // Nothing is read beyond the buffer (the sanitizers watch), and no UID is made up.
  for (const auto& attributes : {kDevice, kType2, kIso15693}) {
    const auto whole = Message(NFC_CMD_GET_TARGET, attributes);
    for (size_t length = sizeof(nlmsghdr); length < whole.size(); ++length) {
      auto cut = Cut(whole, length);
      if (length < NLMSG_HDRLEN + GENL_HDRLEN) {
        EXPECT_FALSE(DecodeCommand(Header(cut)));
        EXPECT_FALSE(DecodeTarget(Header(cut)));
      }
      DecodeDevice(Header(cut));
      DecodeDeviceIndex(Header(cut));
      DecodeMulticastGroup(Header(cut), "events");
      const auto target = DecodeTarget(Header(cut));
      EXPECT_TRUE(!target || target->uid.empty() || length >= whole.size() - 3) << length;
    }
  }
}
