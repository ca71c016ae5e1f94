// kestrune-mcp: the stdio MCP server started by AI harnesses.
// The server loop is being built; until then the executable only reports its version.
#include <cstdio>

int main() {
    std::puts("kestrune-mcp 0.1.0");
    return 0;
}
