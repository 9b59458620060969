#include "Samples.hpp"

#include "every_kind_samples/headers.inc"

using namespace vorlinkit::commands;

static const Decoders decoders = {
#include "every_kind_samples/decoders.inc"
};

TEST(EveryKindSamples, EveryMessageGivesItsTextAndEveryCutAnError) {
  check_samples(decoders, "every_kind_samples/samples.txt");
}

TEST(EveryKindSamples, NoiseNeverDoesMoreThanFail) { check_noise(decoders); }
