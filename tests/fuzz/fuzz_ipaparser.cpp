// libFuzzer target: an .ipa (zip) archive read into an app record, as `kavrel ipa`
// and the catalog do. Each input is written to a scratch file and parsed from there.

#include "FuzzInput.h"
#include "FuzzQuiet.h"
#include "IpaParser.h"

#include <QString>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string input = fuzzinput::scratchDir("fuzz_ipaparser") + "/input.ipa";
    if (!fuzzinput::writeFile(input, data, size))
        return 0;
    IpaParser::IpaInfo info;
    IpaParser::parseIpa(QString::fromStdString(input), &info);
    info.debugInfo();
    IpaParser::debugInfo(info);
    return 0;
}
