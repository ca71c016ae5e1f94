// A stand-in application for end-to-end tests: the real agent service and
// socket server over the in-memory sample mail, with a user who confirms
// every send. Usage: kestrune-test-service <data dir> <socket path> <token>
// Prints "ready" once listening; serves until standard input closes.
#include <csignal>
#include <filesystem>
#include <iostream>
#include <string>

#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPSocketServer.h"
#include "KestruneMCPKit/Policy/MCPPolicyStore.h"
#include "KestruneMCPKit/Service/MCPService.h"
#include "KestruneMCPKit/Tokens/MCPTokenStore.h"
#include "tests/fakes/FakeMailBackend.h"
#include "tests/fakes/RecordingWorkflows.h"
#include "tests/fakes/ScriptedConfirmer.h"

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: kestrune-test-service <data dir> <socket path> <token>\n";
        return 64;
    }
    std::signal(SIGPIPE, SIG_IGN);
    using namespace mcpkit;
    const std::filesystem::path dir = argv[1];
    auto tokens = std::make_shared<MCPMemoryTokenStore>();
    auto policy = std::make_shared<MCPPolicyStore>(dir / "state.json", tokens);
    policy->registerHarness("e2e", "E2E Harness", {"kestrune-e2e"}, argv[3]);
    policy->mutate([](MCPState& s) {
        s.settings.masterEnabled = true;
        s.settings.enabledPermissions.insert("send_message");
    });
    auto audit = std::make_shared<MCPAuditLog>(dir / "audit.jsonl");
    auto backend = testing::FakeMailBackend::withSampleMail();
    auto confirmer = std::make_shared<testing::ScriptedConfirmer>();
    confirmer->defaultAnswer = MCPConfirmOutcome::confirmed;
    auto workflows = std::make_shared<testing::RecordingWorkflows>();
    MCPService service(policy, audit, backend, confirmer, workflows);

    MCPSocketServer server(argv[2], MCP::maxFrameBytes,
                           [&](const std::string& frame) { return service.handleFrame(frame); });
    try {
        server.start();
    } catch (const std::exception& e) {
        std::cerr << "kestrune-test-service: " << e.what() << "\n";
        return 1;
    }
    std::cout << "ready" << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    server.stop();
    std::cout << "sent " << backend->sent().size() << std::endl;
    return 0;
}
