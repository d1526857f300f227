import QtQuick
import QtQuick.Controls
import QtQuick.Dialogs
import QtQuick.Layouts
import QtMultimedia

// The "Scan QR" sheet: camera preview (or why there is none), and a QR image file as the
// desktop's stand-in for holding a code up to the camera.
Dialog {
    id: sheet

    signal codeFound(string code)

    objectName: "scannerSheet"
    modal: true
    parent: Overlay.overlay
    anchors.centerIn: parent
    width: Math.min(parent ? parent.width - 32 : 480, 520)
    height: Math.min(parent ? parent.height - 32 : 560, 560)
    padding: 0
    title: "Scan QR"

    onOpened: {
        scanner.start()
        if (!scanner.denied)
            scanner.videoSink = preview.videoSink
    }
    onClosed: scanner.stop()

    header: ToolBar {
        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: 6
            anchors.rightMargin: 6

            ToolButton {
                objectName: "closeButton"
                text: "Close"
                onClicked: sheet.close()
            }
            PlainLabel {
                text: sheet.title
                font.bold: true
                horizontalAlignment: Text.AlignHCenter
                Layout.fillWidth: true
            }
            // Balances the Close button so the title sits in the middle.
            Item {
                implicitWidth: closeSpacer.implicitWidth
                ToolButton {
                    id: closeSpacer
                    text: "Close"
                    visible: false
                }
            }
        }
    }

    contentItem: ColumnLayout {
        spacing: 0

        Rectangle {
            Layout.fillWidth: true
            Layout.fillHeight: true
            color: "black"
            visible: !scanner.denied

            VideoOutput {
                id: preview
                anchors.fill: parent
                fillMode: VideoOutput.PreserveAspectCrop
            }
        }

        ColumnLayout {
            objectName: "deniedView"
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.margins: 16
            spacing: 12
            visible: scanner.denied

            Footnote {
                objectName: "deniedText"
                text: "Camera access is off. Paste a pairing URL or access key in Pairing instead."
            }
            Item {
                Layout.fillHeight: true
            }
        }

        Button {
            objectName: "openImageButton"
            text: "Open image…"
            Layout.alignment: Qt.AlignHCenter
            Layout.margins: 12
            onClicked: imageDialog.open()
        }
    }

    CaptureSession {
        id: capture
        camera: Camera {
            active: sheet.opened && scanner.active
            onErrorOccurred: scanner.cameraFailed()
        }
        videoOutput: preview
        // Qt 6.4 corrupts the heap when the output goes first while still attached.
        Component.onDestruction: capture.videoOutput = null
    }

    FileDialog {
        id: imageDialog
        nameFilters: ["Images (*.png *.jpg *.jpeg *.bmp *.gif *.webp)", "All files (*)"]
        onAccepted: scanner.decodeImageFile(selectedFile)
    }

    Connections {
        target: scanner
        function onCodeFound(code) {
            sheet.codeFound(code)
            sheet.close()
        }
    }
}
