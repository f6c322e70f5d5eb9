#include <gtest/gtest.h>

#include "containers/ContainerFactory.h"
#include "formats/DeviceFamily.h"

namespace qx {
namespace {

TEST(ContainerSelectionTest, KindForSignature) {
  using namespace std::string_view_literals;
  struct Case { std::string_view signature; ContainerKind expected; };
  const Case cases[] = {
      {kSigZip, ContainerKind::Zip},       {kSigKA, ContainerKind::OldKC},
      {kSigKDX, ContainerKind::OldKC},     {kSigNBX, ContainerKind::OldMA},
      {kSigRa, ContainerKind::OldMA},      {kSigHWL, ContainerKind::OldMA},
      {kSigKB, ContainerKind::None},       {kSigKF, ContainerKind::None},  // no groups of theirs
      {kSigFlash, ContainerKind::None},    {kSigUnknown, ContainerKind::None},
      {"**QXMA**"sv, ContainerKind::None},  // compared whole: a prefix is not enough
      {"**QXHWL*\x01"sv, ContainerKind::None},
      {"PK\x05\x06"sv, ContainerKind::None},
      {""sv, ContainerKind::None},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.signature));
    EXPECT_EQ(ContainerKindForSignature(c.signature), c.expected);
  }
}

TEST(ContainerSelectionTest, NoContainerForWhatNoClassServes) {
  ContainerFactory factory;
  EXPECT_EQ(factory.CreateContainer("/nonexistent-qx-dir/g.grp"), nullptr);
  EXPECT_EQ(ConstructContainer(ContainerKind::None, "g", &factory), nullptr);
}

}  // namespace
}  // namespace qx
