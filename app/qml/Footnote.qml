import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The footnote text style: small, wrapped, in the secondary colour unless told otherwise.
PlainLabel {
    property bool orange: false

    Layout.fillWidth: true
    wrapMode: Text.Wrap
    font.pointSize: Math.max(7, Qt.application.font.pointSize * 0.85)
    color: orange ? "#c25e00" : palette.placeholderText
}
