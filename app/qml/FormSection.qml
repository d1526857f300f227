import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// One section of the form: a header over a framed group of rows. `appeared` fires each time the
// section scrolls into view, and when the form asks (the window coming on screen).
ColumnLayout {
    id: section

    property string title
    property Flickable viewport
    default property alias rows: body.data
    readonly property bool inView: viewport !== null && visible
                                   && y + height > viewport.contentY
                                   && y < viewport.contentY + viewport.height

    signal appeared()

    onInViewChanged: if (inView) appeared()

    Layout.fillWidth: true
    spacing: 6

    PlainLabel {
        objectName: "sectionHeader"
        text: section.title
        font.bold: true
        color: palette.placeholderText
        leftPadding: 4
    }

    Frame {
        Layout.fillWidth: true
        padding: 14

        ColumnLayout {
            id: body
            width: parent.width
            spacing: 10
        }
    }
}
