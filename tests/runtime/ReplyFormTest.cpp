// How a reply travels by its size: inline up to 64 KiB, in a memfd above when descriptors
// pass, refused above 48 MiB with a text that gives the size.

#include "runtime/ReplyForm.h"
#include "runtime/SendReply.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using runtime::ReplyForm;
using runtime::replyFormFor;

TEST(ReplyForm, BySizeAndDescriptorPassing) {
  constexpr size_t mib48 = 48 * 1024 * 1024;
  const std::tuple<size_t, bool, ReplyForm> rows[] = {
      {0, true, ReplyForm::inlineBytes},          {65536, true, ReplyForm::inlineBytes},
      {65537, true, ReplyForm::sealedMemfd},      {65537, false, ReplyForm::inlineBytes},
      {mib48, true, ReplyForm::sealedMemfd},      {mib48, false, ReplyForm::inlineBytes},
      {mib48 + 1, true, ReplyForm::tooLarge},     {mib48 + 1, false, ReplyForm::tooLarge},
  };
  for (const auto &[bytes, descriptors, form] : rows)
    EXPECT_EQ(replyFormFor(bytes, descriptors), form) << bytes << " " << descriptors;
  const auto refused = runtime::SendReply::response(std::string(mib48 + 1, ' '), true);
  EXPECT_EQ(refused.error, (runtime::RuntimeError{-1700, "The reply of 50331649 bytes is over the limit of 50331648 bytes"}));
  EXPECT_FALSE(refused.directObject || refused.responseFile);
}

} // namespace
} // namespace tavix::test
