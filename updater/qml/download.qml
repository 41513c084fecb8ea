import QtQuick 2.15

Rectangle {
    width: 460
    height: 300
    color: "#0f0f1e"
}
