// The update service's version document ("latest.json") and the versions in it: a document read
// as sound keeps every promise the download relies on, one refused says why, and no two versions
// are each newer than the other.
#include "FuzzSupport.h"
#include "service/net/CompareVersion.h"
#include "service/net/ServiceHttp.h"
#include "service/net/VersionDocument.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzApplication();
    FuzzLog::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    const QString what = QString::fromUtf8(bytes.left(300));
    QString error;
    const VersionDocument document = VersionDocument::parse(
        bytes, QUrl(QStringLiteral("https://s.example/v1/linux-amd64/latest.json")), &error);
    if (document.isValid()) {
        FUZZ_EXPECT(error.isEmpty(), what);
        FUZZ_EXPECT(versionNumbers(document.version).size() == 4, what);
        FUZZ_EXPECT(document.sha256.size() == 32, what);
        FUZZ_EXPECT(document.size >= 1 && document.size <= ServiceHttp::kPackageCap, what);
        FUZZ_EXPECT(ServiceHttp::urlAllowed(document.url), what);
    } else {
        FUZZ_EXPECT(!error.isEmpty(), what);
    }
    // The input's first two lines as versions.
    const QList<QByteArray> lines = bytes.split('\n');
    const QString a = QString::fromUtf8(lines.value(0));
    const QString b = QString::fromUtf8(lines.value(1));
    FUZZ_EXPECT(!(compareVersion(a, b) && compareVersion(b, a)), what);
    FUZZ_EXPECT(!compareVersion(a, a), what);
    if (compareVersion(a, b)) {
        FUZZ_EXPECT(versionNumbers(a).size() == 4 && versionNumbers(b).size() == 4, what);
    }
    return 0;
}
