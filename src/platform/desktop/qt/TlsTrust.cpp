#include "TlsTrust.h"

#include <QSslCertificate>
#include <QSslSocket>
#include <QString>
#include <QtGlobal>

namespace velmorand::qtdetail {

QSslConfiguration clientTlsConfiguration() {
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
    const QString caFile = qEnvironmentVariable(kCaFileVariable);
    if (!caFile.isEmpty()) {
        const auto extra = QSslCertificate::fromPath(caFile, QSsl::Pem);
        if (!extra.isEmpty()) {
            configuration.addCaCertificates(extra);
        }
    }
    return configuration;
}

}  // namespace velmorand::qtdetail
