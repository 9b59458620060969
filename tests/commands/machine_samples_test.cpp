#include "Samples.hpp"

#include "machine_samples/headers.inc"

using namespace vorlinkit::commands;

static const Decoders decoders = {
#include "machine_samples/decoders.inc"
};

TEST(MachineSamples, EveryMessageGivesItsTextAndEveryCutAnError) {
  check_samples(decoders, "machine_samples/samples.txt");
}

TEST(MachineSamples, NoiseNeverDoesMoreThanFail) { check_noise(decoders); }
