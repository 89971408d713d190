// The advertisement endpoint's reply: one read as sound names a picture the URL rule allows, a
// click target that is empty or http(s), and a file inside "image/ad_images/" of the data folder,
// never the reply's own copy nor a file elsewhere.
#include "FuzzSupport.h"
#include "online/AdReply.h"
#include "service/net/ServiceHttp.h"

#include <QDir>

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
    const AdReply reply =
        AdReply::parse(bytes, QUrl(QStringLiteral("https://s.example/app/get_advertisement_info.php")));
    if (reply.refusal.isEmpty()) {
        FUZZ_EXPECT(ServiceHttp::urlAllowed(reply.imageUrl), what);
        const QString scheme = QUrl(reply.href).scheme().toLower();
        FUZZ_EXPECT(reply.href.isEmpty() || scheme == QLatin1String("http") ||
                        scheme == QLatin1String("https"),
                    what);
        const QString folder = QStringLiteral("/data/image/ad_images/");
        const QString file = QDir::cleanPath(QStringLiteral("/data/") + reply.localFileName);
        FUZZ_EXPECT(file.startsWith(folder) && file.size() > folder.size(), what);
        FUZZ_EXPECT(file != folder + QStringLiteral("ad.json"), what);
    }
    return 0;
}
