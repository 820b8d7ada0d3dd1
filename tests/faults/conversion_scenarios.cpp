// Sparse files made into increments of an image.
#include "tests/faults/overlay_images.h"

namespace kqtest {
namespace {

using Convert = std::function<KQStatus(const Overlay& overlay)>;

Scenario Conversion(const std::shared_ptr<Overlay>& overlay, const Convert& convert) {
  Scenario scenario;
  scenario.begin = [=] { overlay->CopyPrepared(); };
  scenario.operation = [=] { return convert(*overlay); };
  scenario.expectDone = [=] {
    overlay->ExpectNewImage();
    EXPECT_TRUE(ReadFile(overlay->sparse) == ReadFile(overlay->prepared));
  };
  scenario.expectFailed = [=] {
    overlay->ExpectNoBrokenImage();
    EXPECT_TRUE(ReadFile(overlay->sparse) == ReadFile(overlay->prepared));
  };
  scenario.expectDegraded = scenario.expectFailed;
  scenario.end = [=] { overlay->CleanUp(); };
  scenario.effectOf = [](std::span<const MadeCall> calls, std::size_t i) -> std::optional<Effect> {
    if (i == 0) return Effect::kHidden;  // the look whether the sparse file is there
    return EffectInConversion(calls, i);
  };
  scenario.isTriedAgain = [](std::span<const MadeCall> calls, std::size_t i) {
    return IsSparseTransfer(calls, i, false);
  };
  if (overlay->password != nullptr) scenario.memoryStatuses.push_back(KQ_STATUS_INVALID_PASSWORD);
  return scenario;
}

}  // namespace

std::vector<NamedScenario> ConversionScenarios() {
  const Convert shortest = [](const Overlay& overlay) {
    return KQConvertSparseToIncremental(overlay.sparse.c_str(), overlay.chain.c_str(),
                                        overlay.password, overlay.newImage.c_str(), nullptr);
  };
  const Convert withId = [](const Overlay& overlay) {
    static const Id id = MakeId(99);
    return KQConvertSparseToIncremental2(overlay.sparse.c_str(), overlay.chain.c_str(),
                                         overlay.password, overlay.newImage.c_str(), "a comment",
                                         id.data());
  };
  const Convert withSize = [](const Overlay& overlay) {
    constexpr std::uint64_t kSourceSize = 0x123456;
    return KQConvertSparseToIncremental3(overlay.sparse.c_str(), overlay.chain.c_str(),
                                         overlay.password, overlay.newImage.c_str(), "a comment",
                                         nullptr, &kSourceSize);
  };
  std::vector<NamedScenario> all;
  const auto add = [&](const std::string& name, const Convert& convert, std::uint32_t type) {
    all.push_back({name + std::to_string(type), [=](const TempDir& folder) {
                     return Conversion(PrepareOverlay(folder, type), convert);
                   }});
  };
  add("Convert", shortest, 0);
  add("ConvertWithId", withId, 0);
  for (const std::uint32_t type : {0u, 1u, 2u, 3u, 4u}) add("ConvertWithSize", withSize, type);
  return all;
}

}  // namespace kqtest
