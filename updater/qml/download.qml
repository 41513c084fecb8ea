import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Velmora 1.0

// The installation window's content. Everything shown is bound to the context
// properties `downloader` (progress, status, phase, flags, version) and `upd`
// (the translated "upd_" texts); the view keeps no state of its own and only
// calls the downloader's slots from its buttons.
Rectangle {
    id: root
    objectName: "root"
    width: 460
    height: 300
    color: "#0f0f1e"
    radius: 2

    readonly property color accent: "#5b8cff"
    readonly property color accentDim: "#2a3a6e"
    readonly property color success: "#4caf7d"
    readonly property color errorClr: "#e05c5c"
    readonly property color textMain: "#e8e8f0"
    readonly property color textDim: "#7070a0"
    readonly property color bg2: "#191930"

    readonly property var phaseLabels: [
        upd.upd_phase_connecting,
        upd.upd_phase_downloading,
        upd.upd_phase_extracting,
        upd.upd_phase_installing,
        upd.upd_phase_done
    ]
    readonly property int totalSteps: Phase.Done

    // Error wins over completion everywhere, so a failure reported in the
    // last phase still reads as a failure.
    readonly property color stateColor: downloader.hasError ? errorClr
                                        : downloader.phase === Phase.Done ? success
                                        : accent

    Rectangle {
        objectName: "glowHolder"
        x: -60
        y: -60
        width: 260
        height: 260
        radius: 130
        color: "transparent"
        layer.enabled: true

        Rectangle {
            objectName: "glow"
            anchors.fill: parent
            radius: 130
            opacity: 0.5
            color: downloader.hasError ? "#3a0a0a"
                   : downloader.phase === Phase.Done ? "#0a2a1a"
                   : "#0a0a2a"
            Behavior on color { ColorAnimation { duration: 600 } }
        }
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 28
        spacing: 0

        RowLayout {
            Layout.fillWidth: true
            spacing: 10

            Rectangle {
                id: statusDot
                objectName: "statusDot"
                Layout.preferredWidth: 8
                Layout.preferredHeight: 8
                radius: 4
                color: root.stateColor
                Behavior on color { ColorAnimation { duration: 300 } }

                SequentialAnimation on opacity {
                    objectName: "statusDotPulse"
                    running: downloader.phase > Phase.Connecting && downloader.phase < Phase.Done && !downloader.hasError
                    loops: Animation.Infinite
                    NumberAnimation { to: 0.3; duration: 700 }
                    NumberAnimation { to: 1.0; duration: 700 }
                }
            }

            Text {
                objectName: "brand"
                text: "VELMORA"
                color: root.textMain
                font.pixelSize: 13
                font.bold: true
                font.letterSpacing: 3
            }

            Item { Layout.fillWidth: true }

            Text {
                objectName: "versionText"
                text: "v" + downloader.version
                color: root.textDim
                font.pixelSize: 11
            }
        }

        Item { Layout.preferredHeight: 6 }

        Text {
            objectName: "title"
            Layout.fillWidth: true
            text: downloader.hasError ? upd.upd_title_failed
                  : downloader.phase === Phase.Done ? upd.upd_title_done
                  : upd.upd_title_loading
            color: downloader.hasError ? root.errorClr
                   : downloader.phase === Phase.Done ? root.success
                   : root.textMain
            font.pixelSize: 18
            font.weight: Font.DemiBold
            Behavior on color { ColorAnimation { duration: 300 } }
        }

        Item { Layout.preferredHeight: 20 }

        RowLayout {
            objectName: "phaseIndicator"
            Layout.fillWidth: true
            spacing: 0

            Repeater {
                model: 5

                // One connector and one step per index.
                RowLayout {
                    id: stepCell
                    required property int index
                    readonly property bool passed: index < downloader.phase
                    readonly property bool current: index === downloader.phase
                    readonly property bool reached: index <= downloader.phase
                    readonly property bool failedHere: downloader.hasError && current

                    objectName: "step" + index
                    Layout.fillWidth: index > 0
                    Layout.alignment: Qt.AlignTop
                    spacing: 0

                    Rectangle {
                        objectName: "connector" + stepCell.index
                        visible: stepCell.index > 0
                        Layout.fillWidth: true
                        Layout.preferredWidth: 0
                        Layout.preferredHeight: 2
                        Layout.alignment: Qt.AlignTop
                        // Centred on the 28-high dots.
                        Layout.topMargin: 13
                        color: stepCell.reached ? root.accent : root.accentDim
                        Behavior on color { ColorAnimation { duration: 300 } }
                    }

                    // As wide as the dot, so that the connectors reach the
                    // dots and share the free width equally whatever the
                    // labels' widths; a label wider than its dot spills
                    // over both sides, centred under it.
                    ColumnLayout {
                        Layout.alignment: Qt.AlignTop
                        Layout.fillWidth: false
                        Layout.preferredWidth: 28
                        spacing: 4

                        Rectangle {
                            objectName: "stepDot" + stepCell.index
                            Layout.preferredWidth: 28
                            Layout.preferredHeight: 28
                            Layout.alignment: Qt.AlignHCenter
                            radius: 14
                            color: stepCell.failedHere ? root.errorClr
                                   : stepCell.passed ? root.accent
                                   : stepCell.current ? root.accentDim
                                   : "#1e1e38"
                            border.width: 1.5
                            border.color: stepCell.failedHere ? root.errorClr
                                          : stepCell.reached ? root.accent
                                          : "#2a2a48"
                            Behavior on color { ColorAnimation { duration: 300 } }
                            Behavior on border.color { ColorAnimation { duration: 300 } }

                            Text {
                                objectName: "stepMark" + stepCell.index
                                anchors.centerIn: parent
                                text: stepCell.passed ? "✓" : String(stepCell.index + 1)
                                color: stepCell.reached ? root.textMain : root.textDim
                                font.pixelSize: 11
                                font.bold: stepCell.passed
                            }

                            Rectangle {
                                id: pulseRing
                                objectName: "pulseRing" + stepCell.index
                                anchors.fill: parent
                                radius: 14
                                color: "transparent"
                                border.color: root.accent
                                border.width: 2
                                opacity: 0
                                visible: stepCell.current && !downloader.hasError && downloader.phase < Phase.Done

                                SequentialAnimation on opacity {
                                    objectName: "pulseRingAnimation" + stepCell.index
                                    running: pulseRing.visible
                                    loops: Animation.Infinite
                                    NumberAnimation { to: 0.6; duration: 600 }
                                    NumberAnimation { to: 0.0; duration: 600 }
                                }
                            }
                        }

                        Text {
                            objectName: "stepLabel" + stepCell.index
                            Layout.fillWidth: true
                            horizontalAlignment: Text.AlignHCenter
                            text: root.phaseLabels[stepCell.index]
                            color: stepCell.passed ? root.accent
                                   : stepCell.current ? root.textMain
                                   : root.textDim
                            font.pixelSize: 9
                            font.weight: stepCell.current ? Font.DemiBold : Font.Normal
                            Behavior on color { ColorAnimation { duration: 300 } }
                        }
                    }
                }
            }
        }

        Item { Layout.preferredHeight: 20 }

        Rectangle {
            id: track
            objectName: "progressTrack"
            Layout.fillWidth: true
            Layout.preferredHeight: 6
            radius: 3
            color: root.bg2

            Rectangle {
                id: fill
                objectName: "progressFill"
                width: track.width * downloader.progress / 100
                height: parent.height
                radius: 3
                color: root.stateColor
                // Keeps the shine inside the fill while the fill is narrower
                // than the shine, at the very start of a download.
                clip: true
                Behavior on width { NumberAnimation { duration: 200; easing.type: Easing.OutCubic } }
                Behavior on color { ColorAnimation { duration: 300 } }

                Rectangle {
                    objectName: "shine"
                    anchors.right: parent.right
                    width: 20
                    height: parent.height
                    radius: 3
                    opacity: 0.3
                    visible: !downloader.hasError && downloader.phase < Phase.Done
                    gradient: Gradient {
                        orientation: Gradient.Horizontal
                        GradientStop { position: 0.0; color: Qt.rgba(1, 1, 1, 0) }
                        GradientStop { position: 1.0; color: "white" }
                    }
                }
            }
        }

        Item { Layout.preferredHeight: 8 }

        RowLayout {
            Layout.fillWidth: true
            spacing: 8

            Text {
                objectName: "statusText"
                // A preferred width of 0 lets the status take the free width
                // only, so a long line is elided instead of pushing the
                // percentage out of the window.
                Layout.fillWidth: true
                Layout.preferredWidth: 0
                text: downloader.status
                color: downloader.hasError ? root.errorClr : root.textDim
                font.pixelSize: 11
                elide: Text.ElideRight
                Behavior on color { ColorAnimation { duration: 200 } }
            }

            Text {
                objectName: "percentText"
                Layout.minimumWidth: implicitWidth
                text: downloader.phase === Phase.Downloading || downloader.phase === Phase.Extracting ? downloader.progress + "%" : ""
                color: root.accent
                font.pixelSize: 11
                font.weight: Font.DemiBold
            }
        }

        Item { Layout.fillHeight: true }

        RowLayout {
            Layout.fillWidth: true
            spacing: 10

            Item { Layout.fillWidth: true }

            Rectangle {
                objectName: "firstButton"
                Layout.preferredWidth: 90
                Layout.preferredHeight: 34
                radius: 6
                color: firstArea.containsMouse ? "#252540" : "#1a1a34"
                border.color: "#2a2a50"
                border.width: 1
                Behavior on color { ColorAnimation { duration: 100 } }

                Text {
                    objectName: "firstButtonText"
                    anchors.centerIn: parent
                    text: downloader.isFinished ? upd.upd_btn_close : upd.upd_btn_cancel
                    color: root.textDim
                    font.pixelSize: 12
                }

                MouseArea {
                    id: firstArea
                    anchors.fill: parent
                    hoverEnabled: true
                    cursorShape: Qt.PointingHandCursor
                    onClicked: {
                        if (downloader.isFinished)
                            downloader.close()
                        else
                            downloader.cancel()
                    }
                }
            }

            Rectangle {
                objectName: "openAppButton"
                visible: downloader.phase === Phase.Done
                Layout.preferredWidth: 130
                Layout.preferredHeight: 34
                radius: 6
                color: openAppArea.containsMouse ? "#7aaaff" : root.accent
                Behavior on color { ColorAnimation { duration: 100 } }

                Text {
                    objectName: "openAppButtonText"
                    anchors.centerIn: parent
                    text: upd.upd_btn_open_app
                    color: "#ffffff"
                    font.pixelSize: 12
                    font.weight: Font.Medium
                }

                MouseArea {
                    id: openAppArea
                    anchors.fill: parent
                    hoverEnabled: true
                    cursorShape: Qt.PointingHandCursor
                    onClicked: downloader.openInstalledApp()
                }
            }

            Rectangle {
                objectName: "openFolderButton"
                visible: downloader.phase === Phase.Done
                Layout.preferredWidth: 120
                Layout.preferredHeight: 34
                radius: 6
                color: openFolderArea.containsMouse ? "#7aaaff" : root.accent
                Behavior on color { ColorAnimation { duration: 100 } }

                Text {
                    objectName: "openFolderButtonText"
                    anchors.centerIn: parent
                    text: upd.upd_btn_open_folder
                    color: "#ffffff"
                    font.pixelSize: 12
                    font.weight: Font.Medium
                }

                MouseArea {
                    id: openFolderArea
                    anchors.fill: parent
                    hoverEnabled: true
                    cursorShape: Qt.PointingHandCursor
                    onClicked: downloader.openInstallDir()
                }
            }
        }
    }
}
