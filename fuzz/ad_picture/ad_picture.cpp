// The advertisement's picture: bytes judged sound decode to a PNG or JPEG picture of at most
// 4096 x 4096, and no header, however large it claims the picture is, gets it decoded.
#include "FuzzSupport.h"
#include "online/ADManager.h"

#include <QBuffer>
#include <QImage>
#include <QImageReader>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzApplication();
    FuzzLog::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    const QString problem = ADManager::pictureProblem(bytes);
    const QString what = problem + QStringLiteral(" / ") + QString::fromLatin1(bytes.left(64).toHex());
    if (problem.isEmpty()) {
        const QImage image = QImage::fromData(bytes);
        FUZZ_EXPECT(!image.isNull(), what);
        FUZZ_EXPECT(image.width() <= 4096 && image.height() <= 4096, what);
    }
    return 0;
}
