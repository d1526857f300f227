#include "EncodeSectionBridge.h"

namespace velmorand::app {

void EncodeSectionBridge::setCodec(const QString& codec) {
    section_.setCodec(codec.toStdString());
    emit valuesChanged();
}

void EncodeSectionBridge::setFps(qint64 fps) {
    section_.setFps(fps);
    emit valuesChanged();
}

void EncodeSectionBridge::setQuality(double quality) {
    section_.setQuality(quality);
    emit valuesChanged();
}

void EncodeSectionBridge::setScale(double scale) {
    section_.setScale(scale);
    emit valuesChanged();
}

void EncodeSectionBridge::stepFps(int steps) {
    section_.stepFps(steps);
    emit valuesChanged();
}

void EncodeSectionBridge::loadEncode() {
    section_.loadEncode();
    emit valuesChanged();
}

void EncodeSectionBridge::persistEncode() {
    section_.persistEncode();
    emit statusChanged();
}

}  // namespace velmorand::app
