// The floor for a run that decides there is nothing to do: a QApplication
// that starts, enters its event loop and quits.

#include <QApplication>
#include <QTimer>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QTimer::singleShot(0, &app, &QCoreApplication::quit);
    return app.exec();
}
