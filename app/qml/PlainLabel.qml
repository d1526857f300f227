import QtQuick
import QtQuick.Controls

// A label that shows its text exactly as it stands. What the screen shows comes from the
// service, the relay, the stores and the extension's log: read as markup, a proxy's error page
// would show as a heading and an image tag in a device name would be fetched.
Label {
    textFormat: Text.PlainText
}
