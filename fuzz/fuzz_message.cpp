// The message file service: an arbitrary message file, argument slots and codes. Layout (read
// through FuzzedDataProvider): slot texts from the front, counts, slots and codes from the back,
// the message file in between; a real message file alone is a valid input.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <vector>

#include "fuzz/scratch.h"
#include "runtime/message.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    for (uint32_t slot = 0; slot < 10; slot++) setMessageArg(slot, "");
    setMessageOverride(1, "");
    for (int n = in.ConsumeIntegralInRange(0, 4); n > 0; n--) {
        uint32_t slot =
            in.ConsumeBool() ? in.ConsumeIntegralInRange<uint32_t>(0, 10) : in.ConsumeIntegral<uint32_t>();
        setMessageArg(slot, in.ConsumeRandomLengthString(600).c_str());
    }
    if (in.ConsumeBool()) {
        int32_t code = in.ConsumeIntegral<int32_t>();
        setMessageOverride(code, in.ConsumeRandomLengthString(600).c_str());
    }
    std::vector<int32_t> codes(in.ConsumeIntegralInRange(1, 8));
    for (int32_t& code : codes)
        code = in.ConsumeBool() ? -in.ConsumeIntegralInRange(0, 200) : in.ConsumeIntegral<int32_t>();
    std::vector<uint8_t> file = in.ConsumeRemainingBytes<uint8_t>();
    writeScratch("msg.cvb", file.data(), file.size());
    setMessageFile(scratchDir().c_str(), "msg.cvb");
    reloadMessageFile();
    for (int32_t code : codes) {
        const char* text = getMessage(code);
        // A slot marker takes 3 bytes of the file and gives at most 511 characters.
        if (text == nullptr) abort();
        if (strlen(text) > 512 * (file.size() + 1)) abort();
    }
    return 0;
}
