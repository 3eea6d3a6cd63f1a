// The start banner and the licence agreement.
#pragma once
#include <cstdint>

int32_t showBanner();
// 0 when the user agrees (or there is no agreement text), 1 when refused or at end of input.
int32_t showEula();
