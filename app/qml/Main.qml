import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The one screen. It binds and lays out; every decision is made by the bridges behind
// pairing, encode, broadcast, extensionLog and scanner.
ApplicationWindow {
    id: window

    readonly property real baseSize: Qt.application.font.pointSize > 0
                                     ? Qt.application.font.pointSize : 10
    readonly property color green: "#1f8a3a"
    property alias scannerSheet: scannerSheet
    property alias broadcastSheet: broadcastSheet
    property alias keepsRunningNotice: keepsRunningNotice
    property bool toldBroadcastKeepsRunning: false
    property alias form: form

    title: "Velmorand"
    width: 600
    height: Math.min(Screen.desktopAvailableHeight > 0 ? Screen.desktopAvailableHeight : 1000,
                     1560)
    visible: true

    // The screen comes on screen: reload the model and the sections in view. Only being shown
    // counts, not getting the focus back: a refresh drops an unsaved relay choice and replaces
    // the touch-control line that a start holds for its wait.
    function cameOnScreen() {
        pairing.refresh()
        if (diagnostics.inView)
            diagnostics.appeared()
        if (encodeSection.inView)
            encodeSection.appeared()
    }

    onVisibleChanged: if (visible) cameOnScreen()
    Component.onCompleted: if (visible) cameOnScreen()

    ScrollView {
        id: form
        objectName: "form"
        anchors.fill: parent
        contentWidth: availableWidth

        ColumnLayout {
            id: sections
            x: 16
            y: 16
            width: form.availableWidth - 32
            spacing: 22

            // 1
            FormSection {
                id: diagnostics
                objectName: "diagnosticsSection"
                title: "Diagnostics (extension log)"
                viewport: form.contentItem
                onAppeared: extensionLog.refresh()

                PlainLabel {
                    objectName: "logText"
                    Layout.fillWidth: true
                    text: extensionLog.text
                    wrapMode: Text.WrapAnywhere
                    font.family: "monospace"
                    font.pointSize: Math.max(6, window.baseSize * 0.75)
                }
                Button {
                    objectName: "refreshLogButton"
                    text: "Refresh log"
                    onClicked: extensionLog.refresh()
                }
            }

            // 2
            FormSection {
                objectName: "relaySection"
                title: "Relay"
                viewport: form.contentItem

                RowLayout {
                    Layout.fillWidth: true
                    PlainLabel {
                        text: "Region"
                        Layout.fillWidth: true
                    }
                    ComboBox {
                        objectName: "regionPicker"
                        textRole: "text"
                        valueRole: "value"
                        model: [
                            { text: "Auto", value: "auto" },
                            { text: "EU", value: "eu" },
                            { text: "US", value: "us" },
                            { text: "Asia", value: "asia" }
                        ]
                        currentIndex: count > 0 ? indexOfValue(pairing.relayRegion) : -1
                        onActivated: pairing.relayRegion = currentValue
                    }
                }
                TextField {
                    objectName: "relayOverrideField"
                    Layout.fillWidth: true
                    placeholderText: "Custom wss:// URL (optional)"
                    text: pairing.relayOverride
                    onTextEdited: pairing.relayOverride = text
                    inputMethodHints: Qt.ImhNoAutoUppercase | Qt.ImhNoPredictiveText
                    font.family: "monospace"
                    font.pointSize: Math.max(7, window.baseSize * 0.85)
                }
                Button {
                    objectName: "saveRelayButton"
                    text: "Save relay preference"
                    onClicked: pairing.saveRelay()
                }
                Footnote {
                    text: "Custom URL wins over region. Applies on next broadcast start; region is also sent as preferredRegion on pairing."
                }
                Footnote {
                    objectName: "relayProblem"
                    visible: pairing.relayProblem.length > 0
                    text: pairing.relayProblem
                    orange: true
                }
            }

            // 3
            FormSection {
                objectName: "touchSection"
                title: "Touch control (WDA)"
                viewport: form.contentItem

                RowLayout {
                    Button {
                        objectName: "startTouchButton"
                        text: "Start touch control"
                        onClicked: pairing.startWda()
                    }
                    BusyIndicator {
                        objectName: "touchSpinner"
                        visible: pairing.bridgeBusy
                        running: pairing.bridgeBusy
                        implicitWidth: 28
                        implicitHeight: 28
                    }
                }
                Footnote {
                    objectName: "wdaStatusText"
                    visible: pairing.wdaStatus.length > 0
                    text: pairing.wdaStatus
                }
                Footnote {
                    text: "Asks Velmorand’s Mac to start WebDriverAgent on this iPhone (same as dashboard → Start touch). Needs Wi‑Fi + the Velmorand VPN connected. After each reboot, tap Start once."
                }
            }

            // 4
            FormSection {
                objectName: "pairingSection"
                title: "Pairing"
                viewport: form.contentItem

                RowLayout {
                    objectName: "pairedLabel"
                    visible: pairing.paired
                    spacing: 8
                    Rectangle {
                        implicitWidth: 20
                        implicitHeight: 20
                        radius: 10
                        color: window.green
                        PlainLabel {
                            anchors.centerIn: parent
                            text: "✓"
                            color: "white"
                            font.bold: true
                        }
                    }
                    PlainLabel {
                        objectName: "deviceNameText"
                        text: pairing.pairedLabel
                        color: window.green
                    }
                }
                Button {
                    objectName: "unpairButton"
                    visible: pairing.paired
                    text: "Unpair this device"
                    palette.buttonText: "#c62828"
                    onClicked: pairing.unpair()
                }
                TextField {
                    objectName: "keyField"
                    visible: !pairing.paired
                    Layout.fillWidth: true
                    placeholderText: "Access key from dashboard"
                    text: pairing.key
                    onTextEdited: pairing.key = text
                    inputMethodHints: Qt.ImhNoAutoUppercase | Qt.ImhNoPredictiveText
                    font.family: "monospace"
                }
                Button {
                    id: pairButton
                    objectName: "pairButton"
                    visible: !pairing.paired
                    enabled: pairing.pairEnabled
                    onClicked: pairing.pair()
                    contentItem: RowLayout {
                        spacing: 8
                        opacity: pairButton.enabled ? 1 : 0.45
                        BusyIndicator {
                            objectName: "pairSpinner"
                            visible: pairing.busy
                            running: pairing.busy
                            implicitWidth: 20
                            implicitHeight: 20
                        }
                        PlainLabel {
                            text: "Pair device"
                            color: pairButton.palette.buttonText
                            Layout.alignment: Qt.AlignHCenter
                        }
                    }
                }
                RowLayout {
                    spacing: 10
                    Button {
                        objectName: "scanButton"
                        text: "Scan QR"
                        onClicked: scannerSheet.open()
                    }
                    Button {
                        objectName: "copyPairUrlButton"
                        text: "Copy pair URL"
                        onClicked: pairing.copyPairURL()
                    }
                }
                Footnote {
                    objectName: "statusText"
                    visible: pairing.status.length > 0
                    text: pairing.status
                }
                Footnote {
                    text: "Dashboard pair link. Stock iOS has no LAN URL. Scan a pair/share QR or paste the key."
                }
            }

            // 5
            FormSection {
                id: encodeSection
                objectName: "encodeSection"
                title: "Encode"
                viewport: form.contentItem
                onAppeared: encode.loadEncode()

                RowLayout {
                    spacing: 0
                    Accessible.name: "Codec"
                    Repeater {
                        model: [{ text: "JPEG", value: "jpeg" }, { text: "H.264", value: "h264" }]
                        Button {
                            objectName: "codec-" + modelData.value
                            text: modelData.text
                            checkable: true
                            checked: encode.codec === modelData.value
                            Layout.preferredWidth: 110
                            onClicked: encode.codec = modelData.value
                        }
                    }
                }
                RowLayout {
                    Layout.fillWidth: true
                    PlainLabel {
                        objectName: "fpsText"
                        text: encode.fpsText
                        Layout.fillWidth: true
                    }
                    Button {
                        objectName: "fpsDown"
                        text: "−"
                        enabled: encode.fps > encode.fpsMin
                        implicitWidth: 44
                        onClicked: encode.stepFps(-1)
                    }
                    Button {
                        objectName: "fpsUp"
                        text: "+"
                        enabled: encode.fps < encode.fpsMax
                        implicitWidth: 44
                        onClicked: encode.stepFps(1)
                    }
                }
                ColumnLayout {
                    Layout.fillWidth: true
                    spacing: 2
                    PlainLabel {
                        objectName: "qualityText"
                        text: encode.qualityText
                    }
                    Slider {
                        objectName: "qualitySlider"
                        Layout.fillWidth: true
                        from: encode.qualityMin
                        to: encode.fractionMax
                        stepSize: encode.fractionStep
                        snapMode: Slider.SnapAlways
                        value: encode.quality
                        onMoved: encode.quality = value
                    }
                }
                ColumnLayout {
                    Layout.fillWidth: true
                    spacing: 2
                    PlainLabel {
                        objectName: "scaleText"
                        text: encode.scaleText
                    }
                    Slider {
                        objectName: "scaleSlider"
                        Layout.fillWidth: true
                        from: encode.scaleMin
                        to: encode.fractionMax
                        stepSize: encode.fractionStep
                        snapMode: Slider.SnapAlways
                        value: encode.scale
                        onMoved: encode.scale = value
                    }
                }
                Button {
                    objectName: "saveEncodeButton"
                    text: "Save encode preference"
                    onClicked: encode.persistEncode()
                }
                Footnote {
                    objectName: "encodeStatusText"
                    visible: encode.status.length > 0
                    text: encode.status
                }
                Footnote {
                    text: "Defaults JPEG / 20 fps / 40% quality / 50% scale. Applies on the next Start Broadcast. Codec follows the saved preference; change it here using the Encode picker. Keep Screen Awake is the ReplayKit session itself — stock iOS cannot idle-prevent outside broadcast. No LAN listen, no auto-start."
                }
            }

            // 6
            FormSection {
                objectName: "broadcastSection"
                title: "Screen broadcast"
                viewport: form.contentItem

                Footnote {
                    objectName: "pairFirstText"
                    orange: true
                    visible: broadcast.showsPairFirst
                    text: "Pair with the access key above first. Start Broadcast stays disabled until this phone is paired."
                }
                Button {
                    id: broadcastButton
                    objectName: "broadcastButton"
                    Layout.fillWidth: true
                    Layout.preferredHeight: 48
                    // A running broadcast can be stopped whatever else holds.
                    enabled: broadcast.enabled || broadcast.running
                    // Filled, as the platform's prominent button.
                    background: Rectangle {
                        radius: 6
                        color: broadcastButton.enabled
                               ? (broadcastButton.down ? Qt.darker(broadcastButton.palette.highlight, 1.2)
                                                       : broadcastButton.palette.highlight)
                               : broadcastButton.palette.button
                        border.color: broadcastButton.palette.mid
                        border.width: broadcastButton.enabled ? 0 : 1
                    }
                    text: broadcast.title
                    onClicked: broadcastSheet.open()
                    contentItem: Item {
                        implicitHeight: broadcastRow.implicitHeight
                        implicitWidth: broadcastRow.implicitWidth
                        opacity: broadcastButton.enabled ? 1 : 0.45
                        Row {
                            id: broadcastRow
                            anchors.centerIn: parent
                            spacing: 8
                            // The record symbol: a dot in a ring.
                            Rectangle {
                                anchors.verticalCenter: parent.verticalCenter
                                width: 18
                                height: 18
                                radius: 9
                                color: "transparent"
                                border.width: 2
                                border.color: broadcastTitle.color
                                Rectangle {
                                    anchors.centerIn: parent
                                    width: 8
                                    height: 8
                                    radius: 4
                                    color: broadcastTitle.color
                                }
                            }
                            PlainLabel {
                                id: broadcastTitle
                                anchors.verticalCenter: parent.verticalCenter
                                text: broadcastButton.text
                                color: broadcastButton.enabled
                                       ? broadcastButton.palette.highlightedText
                                       : broadcastButton.palette.buttonText
                            }
                        }
                    }
                }
                RowLayout {
                    Layout.fillWidth: true
                    spacing: 8
                    visible: broadcast.running

                    // The recording dot.
                    Rectangle {
                        width: 10
                        height: 10
                        radius: 5
                        color: "#d12c2c"
                    }
                    PlainLabel {
                        objectName: "broadcastStateText"
                        Layout.fillWidth: true
                        wrapMode: Text.Wrap
                        text: broadcast.stateText
                    }
                }
                Footnote {
                    objectName: "startHelpText"
                    visible: broadcast.showsStartHelp
                    text: "Starts a full-device screen stream — every app, not one. Apple only asks you to confirm Start Broadcast. Stop from the red status bar or Control Center. If iOS still shows a list, pick Full Screen / this iPhone, not a single app."
                }
                Footnote {
                    objectName: "missingExtensionText"
                    orange: true
                    visible: broadcast.showsMissingExtension
                    text: "This install is missing the Velmorand broadcast extension, so iOS will ask you to pick some other app. Reinstall the unsigned IPA (the .appex must be inside it)."
                }
            }

            // 7
            FormSection {
                objectName: "aboutSection"
                title: "About"
                viewport: form.contentItem

                Footnote {
                    text: "Streams your screen without a jailbreak. Remote control (tap/swipe/type) is available when WebDriverAgent is running on this device (started once after each reboot from your Mac); otherwise the stream is view-only."
                }
            }

            Item {
                implicitHeight: 16
            }
        }
    }

    ScannerSheet {
        id: scannerSheet
        onCodeFound: (code) => pairing.applyScannedCode(code)
    }

    BroadcastSheet {
        id: broadcastSheet
    }

    // Closing leaves a running broadcast running, as on the phone; the first close says so.
    onClosing: (close) => {
        if (broadcast.running && !toldBroadcastKeepsRunning) {
            close.accepted = false
            toldBroadcastKeepsRunning = true
            keepsRunningNotice.open()
        }
    }

    Dialog {
        id: keepsRunningNotice
        objectName: "keepsRunningNotice"
        modal: true
        parent: Overlay.overlay
        anchors.centerIn: parent
        width: Math.min(parent ? parent.width - 32 : 420, 420)
        title: "The broadcast keeps running"

        contentItem: PlainLabel {
            wrapMode: Text.Wrap
            text: "Velmorand Connect closes; the broadcast does not, and viewers still see this screen. Stop it from its indicator or with velmorand broadcast --stop."
        }
        footer: DialogButtonBox {
            Button {
                objectName: "stopAndCloseButton"
                text: "Stop Broadcast"
                DialogButtonBox.buttonRole: DialogButtonBox.ActionRole
                onClicked: {
                    broadcast.stop()
                    window.close()
                }
            }
            Button {
                objectName: "keepAndCloseButton"
                text: "Close"
                DialogButtonBox.buttonRole: DialogButtonBox.AcceptRole
                onClicked: window.close()
            }
        }
    }
}
