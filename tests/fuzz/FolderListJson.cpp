#include "model/FolderListJson.h"
#include "fuzz/Require.h"
#include "support/SameFolders.h"

#include <cstddef>
#include <cstdint>

using namespace harbex;
using namespace harbex::test;

/// Decodes any bytes as a stored folder list. The result is an error with a one-line text, or a list that is
/// the same after encoding and decoding.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto json = parseJson(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    const auto folders = json ? decodeFolderList(*json) : json.error();
    if (!folders) {
        const QString& description = folders.error().description;
        require(!description.isEmpty() && !description.contains(u'\n') && !description.contains(u'\r'));
        return 0;
    }
    const auto written = encodeFolderList(*folders);
    require(bool(written));
    const auto again = decodeFolderList(*written);
    require(again && isSame(*again, *folders));
    require(*encodeFolderList(*again) == *written);
    return 0;
}
