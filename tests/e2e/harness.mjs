// What the end-to-end scripts share: the official MCP client SDK, a private
// temporary directory, the helper started the way a harness starts it, and
// named steps that report "ok"/"not ok" and set the exit status.
import { spawnSync } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";

let sdk;
try {
  sdk = {
    ...(await import("@modelcontextprotocol/sdk/client/index.js")),
    ...(await import("@modelcontextprotocol/sdk/client/stdio.js")),
  };
} catch (error) {
  console.error("The MCP client SDK is not installed: run `npm ci` in tests/e2e (scripts/test.sh does).");
  console.error(String(error));
  process.exit(1);
}

// A new 0700 directory under the system's temporary directory.
export function privateTempDir(prefix) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), prefix));
  fs.chmodSync(dir, 0o700);
  return dir;
}

// Starts `helper` over stdio with `env` (plus PATH and the sanitizer
// options of this run) and connects an SDK client named `name`. `stderr` is
// collected and readable through stderrText() when asked for ("pipe").
export async function connectHelper(helper, env, { name = "kestrune-e2e", stderr = "inherit" } = {}) {
  const sanitizers = Object.fromEntries(
    ["ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"].filter((k) => process.env[k]).map((k) => [k, process.env[k]]),
  );
  const transport = new sdk.StdioClientTransport({
    command: helper,
    args: [],
    env: { PATH: process.env.PATH ?? "/usr/bin:/bin", ...env, ...sanitizers },
    stderr,
  });
  let text = "";
  transport.stderr?.on("data", (d) => (text += d.toString()));
  const client = new sdk.Client({ name, version: "1.0.0" });
  await client.connect(transport);
  client.stderrText = () => text;
  return client;
}

// Runs `command args` on a terminal of its own (util-linux `script`),
// typing `typed` when it asks: how a person answers from another terminal.
export function onTerminal(command, args, typed, env) {
  const quote = (a) => `'${String(a).replaceAll("'", `'\\''`)}'`;
  const r = spawnSync("script", ["-qec", [command, ...args].map(quote).join(" "), "/dev/null"], {
    input: typed + "\n",
    encoding: "utf8",
    env,
    timeout: 30000,
  });
  return { status: r.status, out: r.stdout };
}

// Runs `command args` with no terminal at all (a new session), as a
// process started by an agent may be.
export function withoutTerminal(command, args, env) {
  const r = spawnSync("setsid", ["-w", command, ...args], { encoding: "utf8", env, stdio: ["ignore", "pipe", "pipe"], timeout: 30000 });
  return { status: r.status, out: r.stdout, err: r.stderr };
}

let failed = false;
// Runs one named check; a failure is reported and the run goes on.
export async function step(name, body) {
  try {
    await body();
    console.log(`ok - ${name}`);
  } catch (error) {
    failed = true;
    console.log(`not ok - ${name}`);
    console.log(error);
  }
}

// Ends the run: status 1 when any step failed.
export function finish() {
  process.exit(failed ? 1 : 0);
}
