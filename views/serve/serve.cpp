// Feeds the board from the source, and the readers from the board. No state.
#include "serve/serve.h"

#include "serve/past.h"
#include "serve/server.h"

#include "base/layer.h"
#include "base/output.h"
#include "journal/journal.h"
#include "model/program.h"

namespace views {

Exit RunServe(Source& source, const ServeOptions& options) {
    ServerOptions server{.listen = AddressOf(options.host, options.port)};
    if (!options.tokenFile.empty()) server.token = ReadToken(options.tokenFile);
    if (!server.listen.loopback && server.token.empty())
        throw UsageFailure("other machines can reach " + options.host + ", so a token is needed",
                           "name a file that has one with --token-file");

    const EndOnInterrupt end(source);
    Board board;
    if (options.isThisMachine) board.SetPast(ReadPast(JournalFolder(), NowMs()));
    // What the source knows already is new here.
    std::vector<Change> known;
    for (const auto& [key, printer] : source.Now())
        known.push_back(
            {.kind = ChangeKind::PrinterAdded, .atMs = NowMs(), .machine = key.first, .printer = key.second});
    board.Update(source.Now(), known);
    board.Update(source.Now(), source.Wait(std::chrono::milliseconds(0)));

    Server http(server, board);
    const std::string url = "http://" + server.listen.host + ":" + std::to_string(http.Port()) + "/";
    if (g_output.json)
        PrintJsonLine({{"event", "listening"}, {"url", url}});
    else
        PrintLine("serving " + url + (server.token.empty() ? "" : "?token=TOKEN"));
    TellSupervisor("READY=1");
    while (!end.Asked() && !OutputFailure()) {
        const std::vector<Change> changes = source.Wait(http.TickDue());
        board.Update(source.Now(), changes);
        http.Tick();
    }
    return Exit::Done;
}

} // namespace views
