import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The desktop's broadcast sheet: names the extension that will run, says what viewers will be
// able to do, and starts it; while a broadcast runs (whoever started it), shows what it says of
// itself and stops it.
Dialog {
    id: sheet

    // Between the press on Start and the broadcast's first word about itself.
    property bool starting: false

    objectName: "broadcastSheet"
    modal: true
    parent: Overlay.overlay
    anchors.centerIn: parent
    width: Math.min(parent ? parent.width - 32 : 480, 480)
    padding: 18
    topPadding: 8
    title: "Screen broadcast"

    onOpened: starting = false

    Connections {
        target: broadcast
        function onStateChanged() {
            if (broadcast.running)
                sheet.starting = false
        }
    }

    // A broadcast that never says anything (its program failed at once) frees the button again.
    Timer {
        running: sheet.starting
        interval: 10000
        onTriggered: sheet.starting = false
    }

    header: PlainLabel {
        text: sheet.title
        font.bold: true
        font.pointSize: Math.max(9, Qt.application.font.pointSize * 1.15)
        padding: 18
        bottomPadding: 4
    }

    contentItem: ColumnLayout {
        spacing: 12

        // Before: what will run and what it allows.
        ColumnLayout {
            Layout.fillWidth: true
            spacing: 12
            visible: !broadcast.running

            PlainLabel {
                objectName: "sheetExtensionText"
                Layout.fillWidth: true
                wrapMode: Text.Wrap
                text: "Upload extension: " + broadcast.extensionID
            }
            PlainLabel {
                objectName: "sheetViewersText"
                Layout.fillWidth: true
                wrapMode: Text.Wrap
                text: viewOnlyBox.checked
                      ? "Everyone watching this device on the dashboard will see the whole screen, and nothing more: their taps, typing and links are not carried out."
                      : "Everyone watching this device on the dashboard will see the whole screen and can operate it: tap, type, paste, open links and apps, and send files to Downloads."
            }
            CheckBox {
                id: viewOnlyBox
                objectName: "viewOnlyBox"
                text: "View only"
            }
        }

        // While it runs.
        RowLayout {
            Layout.fillWidth: true
            spacing: 10
            visible: broadcast.running

            // The recording dot.
            Rectangle {
                Layout.alignment: Qt.AlignTop
                Layout.topMargin: 3
                width: 12
                height: 12
                radius: 6
                color: "#d12c2c"
            }
            PlainLabel {
                objectName: "sheetStateText"
                Layout.fillWidth: true
                wrapMode: Text.Wrap
                text: broadcast.stateText
            }
        }

        Footnote {
            visible: broadcast.running
            text: "It keeps running when Velmorand Connect closes. Stop it here, from its indicator, or with velmorand broadcast --stop."
        }
    }

    footer: DialogButtonBox {
        Button {
            objectName: "sheetCloseButton"
            text: "Close"
            DialogButtonBox.buttonRole: DialogButtonBox.RejectRole
        }
        Button {
            objectName: "startButton"
            text: sheet.starting ? "Starting…" : "Start Broadcast"
            highlighted: true
            visible: !broadcast.running
            enabled: !sheet.starting && broadcast.enabled
            DialogButtonBox.buttonRole: DialogButtonBox.ActionRole
            onClicked: sheet.starting = broadcast.start(viewOnlyBox.checked)
        }
        Button {
            objectName: "stopButton"
            text: "Stop Broadcast"
            highlighted: true
            visible: broadcast.running
            DialogButtonBox.buttonRole: DialogButtonBox.ActionRole
            onClicked: broadcast.stop()
        }
    }
}
