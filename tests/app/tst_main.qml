import QtQuick
import QtQuick.Controls
import QtTest

TestCase {
    id: test

    property var window: null

    name: "MainScreen"
    when: windowShown

    SignalSpy {
        id: codeSpy
        target: scanner
        signalName: "codeFound"
    }

    function initTestCase() {
        const component = Qt.createComponent(support.mainUrl)
        compare(component.status, Component.Ready, component.errorString())
        window = component.createObject(null, { width: 640, height: 1500 })
        verify(window)
        tryCompare(window, "visible", true)
        waitForRendering(window.contentItem)
    }

    function cleanupTestCase() {
        stopBroadcast()
        // A handshake still running would outlive the services it uses.
        tryCompare(pairing, "busy", false, 20000)
        window.close()
        window.destroy()
        wait(50)
    }

    // A broadcast the test extension started ends when asked, as the real one does.
    function stopBroadcast() {
        broadcast.readState()
        if (broadcast.running) {
            broadcast.stop()
            tryCompare(broadcast, "running", false, 5000)
        }
    }

    // Every test starts unpaired, with nothing stored, no extension, no broadcast and an empty
    // key field.
    function init() {
        stopBroadcast()
        window.broadcastSheet.close()
        window.keepsRunningNotice.close()
        tryCompare(pairing, "busy", false, 20000)
        support.clearStore()
        support.removeExtension()
        pairing.key = ""
        pairing.refresh()
        broadcast.update()
        tryCompare(pairing, "paired", false)
        window.scannerSheet.close()
        tryCompare(window.scannerSheet, "visible", false)
    }

    function item(name) {
        const found = [window.contentItem, window.scannerSheet, window.broadcastSheet.contentItem,
                       window.broadcastSheet.footer, window.keepsRunningNotice.footer]
                      .map(root => findChild(root, name)).find(child => child)
        verify(found, "no item named " + name)
        return found
    }

    // The broadcast sheet as it is drawn, for a person to look at.
    function saveSheet(file) {
        const sheet = window.broadcastSheet.background
        waitForRendering(window.contentItem)
        verify(support.saveWindowArea(window, sheet.mapToItem(null, 0, 0, sheet.width, sheet.height),
                                      support.screenshotDir + "/" + file))
    }

    // Brings an item into the form's view, then clicks it as a user would.
    function click(name) {
        const target = item(name)
        const flickable = window.form.contentItem
        const top = target.mapToItem(flickable, 0, 0).y
        if (top < 0 || top + target.height > flickable.height)
            flickable.contentY = Math.max(0, flickable.contentY + top - 40)
        verify(target.visible && target.enabled, name + " cannot be clicked")
        mouseClick(target)
    }

    function typeInto(name, text) {
        const field = item(name)
        field.forceActiveFocus()
        field.selectAll()
        keyClick(Qt.Key_Delete)
        for (const c of text)
            keyClick(c === " " ? Qt.Key_Space : c)
        compare(field.text, text)
    }

    // Pairs through the form, as a user would.
    function pair(key) {
        typeInto("keyField", key)
        click("pairButton")
        tryCompare(pairing, "paired", true, 10000)
    }

    // Paired, with the test extension in the bundle: the broadcast can start.
    function pairWithExtension() {
        pair(support.demoKey)
        support.installExtension()
        pairing.refresh()
        tryCompare(item("broadcastButton"), "enabled", true)
    }

    function test_pairTrimsTheKeyThenUnpairs() {
        const button = item("pairButton")
        compare(button.enabled, false)
        typeInto("keyField", "   ")
        compare(button.enabled, false)
        pair("  " + support.demoKey + "  ")
        compare(support.stored("accessKey"), support.demoKey)
        tryCompare(item("statusText"), "text", "Paired as " + pairing.deviceName)
        compare(item("keyField").visible, false)
        compare(item("deviceNameText").text, pairing.deviceName || "Paired")

        click("unpairButton")
        tryCompare(item("keyField"), "visible", true)
        tryCompare(item("statusText"), "text", "Unpaired")
        compare(item("pairedLabel").visible, false)
        compare(support.stored("deviceToken"), "")
    }

    function test_saveRelayPreference() {
        const picker = item("regionPicker")
        compare(picker.currentText, "Auto")
        picker.forceActiveFocus()
        keyClick(Qt.Key_Down)
        compare(picker.currentText, "EU")
        // The section warns, while it is typed, of a relay the broadcast would refuse.
        typeInto("relayOverrideField", "ws://relay.example/x")
        tryCompare(item("relayProblem"), "visible", true)
        verify(item("relayProblem").text.indexOf("Custom relay: the broadcast will refuse it") === 0)
        typeInto("relayOverrideField", "  wss://relay.example/x  ")
        tryCompare(item("relayProblem"), "visible", false)

        click("saveRelayButton")
        tryCompare(item("statusText"), "text",
                   "Relay preference saved — applies on next broadcast start.")
        compare(support.stored("relayRegion"), "eu")
        compare(support.stored("relayOverride"), "wss://relay.example/x")
    }

    function test_saveEncodePreference() {
        encode.loadEncode()
        compare(item("fpsText").text, "FPS 20")

        click("codec-h264")
        click("fpsUp")
        click("fpsUp")
        compare(item("fpsText").text, "FPS 22")
        item("qualitySlider").forceActiveFocus()
        keyClick(Qt.Key_Right)
        compare(item("qualityText").text, "Quality 45%")
        item("scaleSlider").forceActiveFocus()
        for (let i = 0; i < 20; ++i)
            keyClick(Qt.Key_Left)
        compare(item("scaleText").text, "Scale 25%")

        click("saveEncodeButton")
        compare(item("encodeStatusText").visible, true)
        compare(item("encodeStatusText").text, "Saved — applies on next Start Broadcast.")
        compare(support.stored("codec"), "h264")
        compare(support.stored("fps"), "22")
        compare(Number(support.stored("quality")), 0.45)
        compare(Number(support.stored("scale")), 0.25)
    }

    function test_broadcastButtonFollowsPairingAndExtension() {
        const button = item("broadcastButton")
        // Unpaired, extension or not: no identifier.
        support.installExtension()
        broadcast.update()
        compare(button.enabled, false)
        compare(item("pairFirstText").visible, true)
        compare(item("missingExtensionText").visible, false)
        support.removeExtension()

        pair(support.demoKey)
        tryCompare(item("missingExtensionText"), "visible", true)
        compare(button.text, "Broadcast extension missing")
        compare(item("pairFirstText").visible, false)

        support.installExtension()
        pairing.refresh()
        tryCompare(button, "enabled", true)
        compare(button.text, "Start Broadcast")
        compare(broadcast.extensionID, "co.velmorand.connect.test-upload")
        compare(item("startHelpText").visible, true)
        compare(item("missingExtensionText").visible, false)

        click("broadcastButton")
        tryCompare(window.broadcastSheet, "opened", true)
        compare(support.launchRecord(), "")  // the sheet starts it, not the button
        mouseClick(item("startButton"))
        tryVerify(() => support.launchRecord() !== "", 5000)
        compare(support.launchRecord(), "--data-dir\n" + support.dataDir + "\n--bundle-dir\n"
                + support.bundleDir + "\n")
    }

    // The sheet names what will run and what viewers may do, starts it view-only when asked,
    // shows what the running broadcast says of itself (here and in the section) and stops it.
    function test_theSheetStartsShowsAndStopsTheBroadcast() {
        pairWithExtension()

        click("broadcastButton")
        tryCompare(window.broadcastSheet, "opened", true)
        compare(item("sheetExtensionText").text, "Upload extension: co.velmorand.connect.test-upload")
        const viewers = item("sheetViewersText")
        verify(viewers.text.indexOf("and can operate it: tap, type") > 0, viewers.text)
        mouseClick(item("viewOnlyBox"))
        verify(viewers.text.indexOf("and nothing more") > 0, viewers.text)
        compare(item("broadcastStateText").visible, false)
        saveSheet("broadcast-sheet.png")

        mouseClick(item("startButton"))
        tryCompare(broadcast, "running", true, 5000)
        verify(support.launchRecord().endsWith("--view-only\n"), support.launchRecord())
        tryCompare(item("sheetStateText"), "text", "Live — 1 viewer watching (view only)", 5000)
        compare(item("stopButton").visible, true)
        compare(item("startButton").visible, false)
        compare(item("broadcastStateText").text, "Live — 1 viewer watching (view only)")
        compare(item("broadcastStateText").visible, true)
        saveSheet("broadcast-sheet-live.png")

        mouseClick(item("stopButton"))
        tryCompare(broadcast, "running", false, 5000)
        compare(broadcast.stateText, "Not running")
        compare(item("startButton").visible, true)
        // Ready for the next one at once, not after a wait.
        compare(item("startButton").text, "Start Broadcast")
        compare(item("startButton").enabled, true)
        compare(item("broadcastStateText").visible, false)
    }

    // A stop asked while the broadcast is still starting, before it has recorded its id, is not
    // lost.
    function test_aStopAskedAtTheStartIsKept() {
        pairWithExtension()
        click("broadcastButton")
        mouseClick(item("startButton"))
        tryVerify(() => { broadcast.readState(); return broadcast.running }, 5000)
        mouseClick(item("stopButton"))
        tryCompare(broadcast, "running", false, 5000)
        compare(broadcast.stateText, "Not running")
    }

    // Closing the window leaves the broadcast running and says so, once.
    function test_closingSaysTheBroadcastKeepsRunning() {
        pairWithExtension()
        click("broadcastButton")
        mouseClick(item("startButton"))
        tryCompare(broadcast, "running", true, 5000)
        window.broadcastSheet.close()

        window.toldBroadcastKeepsRunning = false
        window.close()
        tryCompare(window.keepsRunningNotice, "opened", true)
        compare(window.visible, true)
        compare(broadcast.running, true)
        window.keepsRunningNotice.close()
        compare(window.toldBroadcastKeepsRunning, true)
    }

    function test_scannerDeliversTheFirstUsableCodeOnce() {
        codeSpy.clear()
        click("scanButton")
        tryCompare(window.scannerSheet, "opened", true)
        compare(window.scannerSheet.title, "Scan QR")
        compare(item("deniedText").text,
                "Camera access is off. Paste a pairing URL or access key in Pairing instead.")
        support.attachCamera()

        support.showQrCode("")
        wait(50)
        compare(codeSpy.count, 0)
        compare(window.scannerSheet.opened, true)

        support.showQrCode("  velmorand://pair?key=" + support.demoKey + "\n")
        tryCompare(codeSpy, "count", 1)
        compare(codeSpy.signalArguments[0][0], "velmorand://pair?key=" + support.demoKey)
        tryCompare(window.scannerSheet, "visible", false)
        compare(pairing.key, support.demoKey)
        tryCompare(pairing, "paired", true, 10000)

        support.showQrCode("velmorand://pair?key=second")  // same session: ignored
        wait(50)
        compare(codeSpy.count, 1)
        compare(pairing.key, support.demoKey)
    }

    // Texts from the service, the stores and the log stand as they are: no label takes them
    // for markup.
    function test_everyLabelIsPlainText() {
        const texts = []
        const walk = (item) => {
            if (item instanceof Label)
                texts.push(item)
            for (let i = 0; i < item.children.length; ++i)
                walk(item.children[i])
        }
        for (const root of [window.contentItem, window.scannerSheet.contentItem,
                            window.scannerSheet.header])
            walk(root)
        verify(texts.length > 20, texts.length + " texts")
        for (const text of texts)
            compare(text.textFormat, Text.PlainText, text.objectName + " " + text.text)
    }
}
