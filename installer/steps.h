// Steps of the installation chain that live in their own modules.
#pragma once
#include <cstdint>

int32_t queryEclipseLocation();
int32_t backUpOldConfiguration();
int32_t updateMiscFiles();
int32_t compileMacros();
int32_t runPostInstall();
void printCompletionNotes();
