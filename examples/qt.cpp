// A host in Qt's event loop, by a QSocketNotifier. A window is used the same way.
//   qt OUT.wav [SECONDS]
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QStringList>
#include <exception>
#include <iostream>

#include "TakeHost.h"

int main(int count, char** arguments) {
    const QCoreApplication application(count, arguments);
    const QStringList words = QCoreApplication::arguments();
    if (words.size() < 2) {
        std::cerr << "usage: qt OUT.wav [SECONDS]\n";
        return 1;
    }
    example::Take take;
    take.out = words[1].toStdString();
    take.seconds = words.size() > 2 ? words[2].toDouble() : 3.0;
    take.onDone = [](bool saved) { QCoreApplication::exit(saved ? 0 : 1); };
    try {
        const auto host = example::TakeHost::Start(take);
        // Notifications wait until the loop runs, so none is missed.
        const QSocketNotifier notifier(vorrel::MainQueue::Descriptor(), QSocketNotifier::Read);
        QObject::connect(&notifier, &QSocketNotifier::activated, &application,
                         [] { vorrel::MainQueue::Dispatch(); });
        return QCoreApplication::exec();
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
}
