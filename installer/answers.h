// The answers file "setup.ini" with its section "unattended".
#pragma once
#include <cstdint>
#include "installer/state.h"

int32_t readAnswersFile(const char* fileName, InstallAnswers* answers);
int32_t parseYesNo(const char* text);
