// Tests of digests, base64 and UUIDs.
#include "platform/digest.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "corvane/digest.h"
#include "corvane/uuid.h"
#include "platform/file.h"
#include "platform/secure_random.h"
#include "support/guarded_buffer.h"
#include "support/temporary_directory.h"

namespace vel {
namespace {

TEST(Digest, AgreesWithPublishedVectors) {
  EXPECT_EQ(hexString(sha1("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(VELSHA256Digest("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  // Twice by the same object, in pieces.
  SHA256 digest;
  for (int round = 0; round < 2; ++round) {
    for (const char* piece : {"a", "", "bc"}) digest.update(piece);
    EXPECT_EQ(digest.finish(), sha256("abc")) << round;
  }
}

TEST(Digest, ReadsFilesToTheirEnd) {
  const test::TemporaryDirectory directory;
  const std::string path = directory.path("file");
  // More than two of the pieces that are read at once.
  const std::string content(300'001, 'c');
  ASSERT_TRUE(writeAll(createExclusive(path), content));
  EXPECT_EQ(VELSHA256DigestOfFile(path), VELSHA256Digest(content));
  VELError error;
  EXPECT_FALSE(VELSHA256DigestOfFile(directory.path("absent"), &error));
  EXPECT_EQ(error.code(), ENOENT);
}

TEST(Base64, EncodesAndDecodes) {
  const std::pair<std::string_view, std::string_view> cases[] = {{"", ""},
                                                                 {"f", "Zg=="},
                                                                 {"fo", "Zm8="},
                                                                 {"foo", "Zm9v"},
                                                                 {"foob", "Zm9vYg=="},
                                                                 {"foobar", "Zm9vYmFy"},
                                                                 {"\xFB\xFF\xFE", "+//+"}};
  for (const auto& [bytes, text] : cases) {
    EXPECT_EQ(base64Encoded(bytes), text);
    EXPECT_EQ(base64Decoded(test::GuardedBuffer(text).view()), bytes) << text;
  }
}

TEST(Base64, RefusesWhatIsNotCanonical) {
  for (const std::string_view text :
       {"Z", "Zg", "Zg=", "Zm9vYg", "=", "====", "Z===", "Zg==Zg==", "Zm=v",
        "Zh==", "Zm9=", "Zm9v\n", " Zm9v", "Zm9-", "Zm_v", "Zm9v===="}) {
    EXPECT_FALSE(base64Decoded(text)) << text;
  }
}

TEST(UUID, IsRandomAndOfVersionFour) {
  std::set<VELUUID> seen;
  for (int i = 0; i < 1000; ++i) {
    const VELUUID uuid = VELUUID::UUID();
    EXPECT_TRUE(seen.insert(uuid).second);
    EXPECT_EQ(uuid.bytes()[6] >> 4, 4);
    EXPECT_EQ(uuid.bytes()[8] >> 6, 2);
  }
}

TEST(UUID, SpellsAndReadsItsText) {
  const std::string text = "F81D4FAE-7DEC-11D0-A765-00A0C91E6BF6";
  EXPECT_EQ(VELUUID::UUIDWithString(text)->UUIDString(), text);
  EXPECT_EQ(VELUUID::UUIDWithString("f81d4fae-7dec-11d0-a765-00a0c91e6bf6")->UUIDString(), text);
  EXPECT_EQ(VELUUID().UUIDString(), "00000000-0000-0000-0000-000000000000");
  for (size_t at = 0; at < text.size(); ++at) {
    std::string broken = text;
    broken[at] = broken[at] == '-' ? 'A' : '-';
    EXPECT_FALSE(VELUUID::UUIDWithString(broken)) << broken;
    EXPECT_FALSE(VELUUID::UUIDWithString(text.substr(0, at)));
  }
  EXPECT_FALSE(VELUUID::UUIDWithString(text + "0"));
}

TEST(SecureRandom, AChildDoesNotRepeatItsParent) {
  VELUUID::UUID();  // Now bytes are buffered.
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const FileDescriptor reading(ends[0]), writing(ends[1]);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const bool sent = writeAll(writing, VELUUID::UUID().UUIDString());
    ::_exit(sent ? 0 : 1);
  }
  const VELUUID ours = VELUUID::UUID();
  std::string theirs(36, '\0');
  EXPECT_EQ(::read(reading.get(), theirs.data(), theirs.size()), 36);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_NE(theirs, ours.UUIDString());
}

TEST(SecureRandom, FillsRequestsOfAnySize) {
  for (const size_t size : {size_t{1}, size_t{127}, size_t{128}, size_t{129}, size_t{5000}}) {
    // All bits turn up in some place: a byte left alone would stay zero in every round.
    std::string seen(size, '\0');
    for (int round = 0; round < 64; ++round) {
      std::string bytes(size, '\0');
      secureRandomBytes(bytes.data(), size);
      for (size_t i = 0; i < size; ++i) seen[i] = static_cast<char>(seen[i] | bytes[i]);
    }
    EXPECT_EQ(seen, std::string(size, '\xFF')) << size;
  }
}

}  // namespace
}  // namespace vel
