#include "postauth/handheld.h"

namespace {

TavioSdk g_tavio;

}  // namespace

const TavioSdk& tavio_sdk() { return g_tavio; }

void set_tavio_sdk(const TavioSdk& sdk) { g_tavio = sdk; }
