#pragma once

#include <QObject>
#include <QString>

#include "velmorand/ui/EncodeSection.h"

namespace velmorand::app {

// The encode section's edited values, texts and bounds, for QML.
class EncodeSectionBridge : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString codec READ codec WRITE setCodec NOTIFY valuesChanged)
    Q_PROPERTY(qint64 fps READ fps WRITE setFps NOTIFY valuesChanged)
    Q_PROPERTY(double quality READ quality WRITE setQuality NOTIFY valuesChanged)
    Q_PROPERTY(double scale READ scale WRITE setScale NOTIFY valuesChanged)
    Q_PROPERTY(QString fpsText READ fpsText NOTIFY valuesChanged)
    Q_PROPERTY(QString qualityText READ qualityText NOTIFY valuesChanged)
    Q_PROPERTY(QString scaleText READ scaleText NOTIFY valuesChanged)
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    Q_PROPERTY(qint64 fpsMin MEMBER fpsMin_ CONSTANT)
    Q_PROPERTY(qint64 fpsMax MEMBER fpsMax_ CONSTANT)
    Q_PROPERTY(double qualityMin MEMBER qualityMin_ CONSTANT)
    Q_PROPERTY(double scaleMin MEMBER scaleMin_ CONSTANT)
    Q_PROPERTY(double fractionMax MEMBER fractionMax_ CONSTANT)
    Q_PROPERTY(double fractionStep MEMBER fractionStep_ CONSTANT)

  public:
    explicit EncodeSectionBridge(SharedConfig& config, QObject* parent = nullptr)
        : QObject(parent), section_(config) {}

    QString codec() const { return QString::fromStdString(section_.codec()); }
    void setCodec(const QString& codec);
    qint64 fps() const { return section_.fps(); }
    void setFps(qint64 fps);
    double quality() const { return section_.quality(); }
    void setQuality(double quality);
    double scale() const { return section_.scale(); }
    void setScale(double scale);
    QString fpsText() const { return QString::fromStdString(section_.fpsText()); }
    QString qualityText() const { return QString::fromStdString(section_.qualityText()); }
    QString scaleText() const { return QString::fromStdString(section_.scaleText()); }
    QString status() const { return QString::fromStdString(section_.status()); }

    Q_INVOKABLE void stepFps(int steps);
    Q_INVOKABLE void loadEncode();
    Q_INVOKABLE void persistEncode();

  signals:
    void valuesChanged();
    void statusChanged();

  private:
    EncodeSection section_;
    qint64 fpsMin_ = EncodeSection::kFpsMin;
    qint64 fpsMax_ = EncodeSection::kFpsMax;
    double qualityMin_ = EncodeSection::kQualityMin;
    double scaleMin_ = EncodeSection::kScaleMin;
    double fractionMax_ = EncodeSection::kFractionMax;
    double fractionStep_ = EncodeSection::kFractionStep;
};

}  // namespace velmorand::app
