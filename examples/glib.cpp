// A host in GLib's main loop. Ctrl-C ends the recording and saves it.
//   glib OUT.wav [SECONDS]
#include <glib-unix.h>
#include <glib.h>

#include <csignal>
#include <iostream>

#include "TakeHost.h"

namespace {

struct Program {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    std::shared_ptr<example::TakeHost> host;
    int exitCode = 0;
};

gboolean Dispatch(gint, GIOCondition, gpointer) {
    vorrel::MainQueue::Dispatch();
    return G_SOURCE_CONTINUE;
}

gboolean Interrupted(gpointer data) {
    static_cast<Program*>(data)->host->Stop();
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 2) {
        std::cerr << "usage: glib OUT.wav [SECONDS]\n";
        return 1;
    }
    Program program;
    example::Take take;
    take.out = arguments[1];
    if (count > 2) {
        take.seconds = g_ascii_strtod(arguments[2], nullptr);
    }
    take.onDone = [&program](bool saved) {
        program.exitCode = saved ? 0 : 1;
        g_main_loop_quit(program.loop);
    };
    try {
        program.host = example::TakeHost::Start(take);
        // Notifications wait until the loop runs, so none is missed.
        g_unix_fd_add(vorrel::MainQueue::Descriptor(), G_IO_IN, Dispatch, nullptr);
        g_unix_signal_add(SIGINT, Interrupted, &program);
        g_main_loop_run(program.loop);
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        program.exitCode = 1;
    }
    g_main_loop_unref(program.loop);
    return program.exitCode;
}
