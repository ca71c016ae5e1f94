#!/usr/bin/env python3
"""Plays a harness against kestrune-mcp: starts it over stdio, sends a short
scripted MCP exchange one request at a time and prints both sides readably.

Usage: scripts/mcp-exchange.py <path to kestrune-mcp> [socket path]
Without a socket path the helper is pointed at a socket nobody listens on,
which shows how it behaves while the Kestrune app is not running.
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import textwrap

helper = sys.argv[1]
work = tempfile.mkdtemp(prefix="kestrune-run-")
socket_path = sys.argv[2] if len(sys.argv) > 2 else os.path.join(work, "kestrune.sock")
env = {
    "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
    "HOME": work,
    "KESTRUNE_MCP_TOKEN": "demo-token",
    "KESTRUNE_SOCKET": socket_path,
}
proc = subprocess.Popen([helper], stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=env, text=True)


def show(prefix, message):
    print(prefix, json.dumps(message, ensure_ascii=False))


def summarise_tools(result):
    lines = []
    for tool in result.get("tools", []):
        hints = tool.get("annotations", {})
        kind = "read" if hints.get("readOnlyHint") else "write"
        extra = [h for h in ("destructiveHint", "idempotentHint", "openWorldHint") if hints.get(h)]
        lines.append(f"    {tool['name']:<17} {kind:<5} {', '.join(extra):<40} {tool.get('title', '')}")
    return "\n".join(lines)


def exchange(message, expect_answer=True):
    show("harness  ->", message)
    proc.stdin.write(json.dumps(message) + "\n")
    proc.stdin.flush()
    if not expect_answer:
        print("             (a notification: no answer)\n")
        return None
    answer = json.loads(proc.stdout.readline())
    if message.get("method") == "tools/list" and "result" in answer:
        tools = answer["result"]["tools"]
        print(f"helper   <- {len(tools)} tools (name, read or write, hints, title):")
        print(summarise_tools(answer["result"]))
    else:
        show("helper   <-", answer)
    print()
    return answer


print(f"kestrune-mcp serving a scripted harness (app socket: {socket_path})\n")
exchange({"jsonrpc": "2.0", "id": 1, "method": "initialize",
          "params": {"protocolVersion": "2025-06-18", "capabilities": {},
                     "clientInfo": {"name": "demo-harness", "version": "1.0"}}})
exchange({"jsonrpc": "2.0", "method": "notifications/initialized"}, expect_answer=False)
exchange({"jsonrpc": "2.0", "id": 2, "method": "tools/list"})
answer = exchange({"jsonrpc": "2.0", "id": 3, "method": "tools/call",
                   "params": {"name": "search_messages", "arguments": {"query": "invoice"}}})
exchange({"jsonrpc": "2.0", "id": 4, "method": "ping"})
exchange({"jsonrpc": "2.0", "id": 5, "method": "no/such/method"})
proc.stdin.close()
status = proc.wait()
shutil.rmtree(work, ignore_errors=True)
print(f"end of input: kestrune-mcp exited with status {status}")
if answer and answer.get("result", {}).get("isError"):
    text = answer["result"]["content"][0]["text"]
    print("\nWhat the harness shows its user for the tool call:\n" + textwrap.indent(textwrap.fill(text, 76), "  "))
sys.exit(status)
