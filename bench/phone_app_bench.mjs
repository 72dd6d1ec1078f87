// Files and shells as the phone app meets them: the real agent on a private
// Xvfb, the development server, and the phone app (phone/app) in headless
// Chromium at a phone's size. Prints figures beside scp of the same file over
// loopback in the same run; never fails on timing.
//
//   files: 256 MiB up and down on loopback, a smaller file through a 4 Mbit/s
//          link (a network namespace shaped by tc, the agent inside; needs
//          root), the agent's resident memory during 1 GiB each way;
//   shell: keystroke-to-echo latency, `cat` of 64 MiB until the app has drawn
//          it (with the agent's CPU and memory), the agent's memory under `yes`.
//
// Every figure comes with the load average; transfers also with the CPU
// seconds the agent and Chromium spent on them (a busy machine changes those
// less than the speed), the throttled download with what else took the link.
//
// Environment: ZUL_AGENT_PATH, ZUL_TRUSTED_DEVICES_PATH (set by the launcher
// CMake writes beside the other benchmarks); ZUL_BENCH_SKIP=throttled,scp,gib
// leaves parts out (also: shell).

import { spawn, spawnSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync, statSync, writeFileSync, copyFileSync }
  from 'node:fs';
import { createRequire } from 'node:module';
import { loadavg, tmpdir } from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { children, sleep, start as startProcess } from '../tests/support/processes.mjs';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..');
const { chromium } = createRequire(path.join(root, 'phone', 'package.json'))('playwright-core');
const MiB = 1024 * 1024;
const skip = new Set((process.env.ZUL_BENCH_SKIP || '').split(',').filter(Boolean));
const say = (line) => console.log(line);

// ---- processes ---------------------------------------------------------------

// Processes wait a minute for a line: a loaded machine starts slowly.
const start = (command, args, env = {}) => startProcess(command, args, env, { timeout: 60000 });

function stop(proc) {
  return new Promise((resolve) => {
    if (proc.child.exitCode !== null) { resolve(); return; }
    proc.child.once('exit', resolve);
    proc.child.kill('SIGTERM');
  });
}
const run = (command, options = {}) => spawnSync('sh', ['-c', command],
  { stdio: ['ignore', 'pipe', 'pipe'], ...options });
function must(command, options) {
  const result = run(command, options);
  if (result.status !== 0) throw new Error(`${command}: ${result.stderr}`);
  return result.stdout.toString();
}

// The agent's resident memory (KiB) and CPU time (s), from /proc.
function rssKiB(pid) {
  try {
    return Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${pid}/status`, 'utf8'))[1]);
  } catch {
    return 0;
  }
}
function cpuSeconds(pid) {
  const stat = readFileSync(`/proc/${pid}/stat`, 'utf8');
  const fields = stat.slice(stat.lastIndexOf(') ') + 2).split(' ');
  return (Number(fields[11]) + Number(fields[12])) / 100; // utime, stime in ticks
}
// CPU time (s) of this run's Chromium processes (children of this process).
function chromiumSeconds() {
  const parent = new Map();
  const comm = new Map();
  for (const entry of readdirSync('/proc')) {
    if (!/^\d+$/.test(entry)) continue;
    try {
      const stat = readFileSync(`/proc/${entry}/stat`, 'utf8');
      const fields = stat.slice(stat.lastIndexOf(') ') + 2).split(' ');
      parent.set(Number(entry), Number(fields[1]));
      comm.set(Number(entry), stat.slice(stat.indexOf('(') + 1, stat.lastIndexOf(')')));
    } catch { /* gone */ }
  }
  let seconds = 0;
  for (const [pid, name] of comm) {
    if (!/chrom/i.test(name)) continue;
    let up = parent.get(pid);
    while (up && up !== process.pid) up = parent.get(up);
    if (up === process.pid) {
      try {
        seconds += cpuSeconds(pid);
      } catch { /* gone */ }
    }
  }
  return seconds;
}
// CPU shares (% of a core) of the agent and Chromium while `work` runs.
async function cpuWhile(pid, work) {
  const [a, c, t] = [cpuSeconds(pid), chromiumSeconds(), performance.now()];
  const value = await work;
  const wall = (performance.now() - t) / 1000;
  return { value, wall, agent: (100 * (cpuSeconds(pid) - a)) / wall,
    chromium: (100 * (chromiumSeconds() - c)) / wall };
}
// With the CPU seconds it took, which a busy machine changes less than the speed.
const shares = (c) => `agent ${c.agent.toFixed(0)} %, Chromium ${c.chromium.toFixed(0)} % of a core ` +
  `(${((c.agent * c.wall) / 100).toFixed(1)} + ${((c.chromium * c.wall) / 100).toFixed(1)} s of CPU)`;

// Samples the agent's memory every 50 ms until `done` resolves; the peak.
async function peakWhile(pid, done) {
  let peak = rssKiB(pid);
  let finished = false;
  const result = done.finally(() => { finished = true; });
  while (!finished) {
    peak = Math.max(peak, rssKiB(pid));
    await Promise.race([sleep(50), result.catch(() => {})]);
  }
  return { value: await result, peak };
}

const mib = (kib) => (kib / 1024).toFixed(1);
const load = () => loadavg().map((l) => l.toFixed(2)).join(' ');
const rate = (bytes, ms) => bytes / MiB / (ms / 1000);

// ---- the machine ---------------------------------------------------------------

const work = mkdtempSync(path.join(tmpdir(), 'zul-bench-'));
const env = {
  XDG_RUNTIME_DIR: work,
  XDG_DATA_HOME: path.join(work, 'data'),
  XDG_STATE_HOME: path.join(work, 'state'),
  ZUL_SECRET_BACKEND: 'file',
  HOME: path.join(work, 'home'),
};
mkdirSync(env.HOME);
const browsers = [];
let netns = '';
let dropped = 0;

async function cleanUp() {
  for (const b of browsers) await b.close().catch(() => {});
  for (const child of children.reverse()) child.kill('SIGTERM');
  if (netns) {
    run(`ip netns del ${netns}; ip link del ${netns}o`);
  }
  rmSync(work, { recursive: true, force: true });
}
process.on('SIGINT', () => cleanUp().then(() => process.exit(130)));

// A network namespace behind a veth pair, both ends shaped by tc (netem with
// a delay, else a token bucket): the agent inside, the phone outside.
const OUTSIDE = '10.231.9.1';
const INSIDE = '10.231.9.2';
function throttledLink(linkRate, delayMs) {
  if (process.getuid() !== 0) return 'network namespaces need root';
  const name = `zulbench${process.pid}`;
  const out = `${name}o`;
  const inside = `${name}i`;
  try {
    for (const command of [`ip netns add ${name}`,
      `ip link add ${out} type veth peer name ${inside}`, `ip link set ${inside} netns ${name}`,
      `ip addr add ${OUTSIDE}/24 dev ${out}`, `ip link set ${out} up`,
      `ip -n ${name} addr add ${INSIDE}/24 dev ${inside}`, `ip -n ${name} link set ${inside} up`,
      `ip -n ${name} link set lo up`]) {
      netns = name;
      must(command);
    }
    for (const shaping of [`netem rate ${linkRate} delay ${delayMs}ms limit 1000`,
      `tbf rate ${linkRate} burst 32kbit limit 1500000`]) {
      if (run(`tc qdisc add dev ${out} root ${shaping}`).status === 0 &&
          run(`ip netns exec ${name} tc qdisc add dev ${inside} root ${shaping}`).status === 0) {
        return { name, shaping };
      }
      run(`tc qdisc del dev ${out} root`);
    }
    return 'tc shapes neither with netem nor with tbf';
  } catch (error) {
    return error.message;
  }
}

// A throwaway sshd on a high port of loopback with keys made for this run.
async function startSshd() {
  const sshd = '/usr/sbin/sshd';
  if (run(`test -x ${sshd} && command -v scp`).status !== 0) return null;
  const dir = path.join(work, 'ssh');
  mkdirSync(dir, { mode: 0o700 });
  must(`ssh-keygen -q -t ed25519 -N '' -f ${dir}/host && ssh-keygen -q -t ed25519 -N '' -f ${dir}/client`);
  copyFileSync(`${dir}/client.pub`, `${dir}/authorized_keys`);
  const port = 30000 + (process.pid % 20000);
  writeFileSync(`${dir}/config`, [`Port ${port}`, 'ListenAddress 127.0.0.1', `HostKey ${dir}/host`,
    `AuthorizedKeysFile ${dir}/authorized_keys`, 'StrictModes no', 'UsePAM no',
    'PasswordAuthentication no', 'PermitRootLogin prohibit-password', `PidFile ${dir}/pid`,
    'Subsystem sftp internal-sftp', ''].join('\n'));
  mkdirSync('/run/sshd', { recursive: true });
  const server = spawn(sshd, ['-D', '-e', '-f', `${dir}/config`], { stdio: ['ignore', 'ignore', 'pipe'] });
  children.push(server);
  const options = `-q -i ${dir}/client -P ${port} -o StrictHostKeyChecking=no ` +
    '-o UserKnownHostsFile=/dev/null -o BatchMode=yes';
  for (let i = 0; i < 100; i += 1) {
    if (run(`ssh ${options.replace('-P', '-p')} 127.0.0.1 true`).status === 0) {
      return (from, to) => {
        const t0 = performance.now();
        must(`scp ${options} ${from} ${to}`);
        return performance.now() - t0;
      };
    }
    await sleep(100);
  }
  return null;
}

// ---- the phone -----------------------------------------------------------------

// Headless Chromium draws at 60 Hz, as a phone's display does, so "drawn"
// holds the wait for the next frame (0-16.7 ms). Unthrottled frames
// (--disable-frame-rate-limit, --disable-gpu-vsync,
// --run-all-compositor-stages-before-draw) draw without pause: on two busy
// cores the echo came later and cat ran at a third of the speed.
async function phone() {
  const browser = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
  browsers.push(browser);
  const context = await browser.newContext({ viewport: { width: 390, height: 844 },
    hasTouch: true, isMobile: true, locale: 'ru-RU', acceptDownloads: true });
  const page = await context.newPage();
  page.on('pageerror', (error) => console.error(`page: ${error.message}`));
  page.on('console', (m) => {
    if (/write data discarded/.test(m.text())) dropped += 1; // xterm.js could not keep up
    else if (m.type() === 'error') console.error(`page: ${m.text()}`);
  });
  return page;
}

// Which renderer xterm.js draws the shell with.
const renderer = (page) => page.evaluate(() =>
  `${document.querySelector('#term-host .term:not([hidden])')?.dataset.renderer} renderer`);

const connected = (page) => page.waitForSelector('body[data-state=connected]', { timeout: 90000 });

// A transfer of `kind` that ended after `seen` (the numbers already known).
async function transferEnded(page, kind, seen, timeout = 30 * 60000) {
  const handle = await page.waitForFunction(([k, known]) => zulApp.transfers().find((t) =>
    t.kind === k && !known.includes(t.number) && ['finished', 'failed', 'cancelled'].includes(t.state)),
  [kind, seen], { timeout, polling: 100 });
  const transfer = await handle.jsonValue();
  if (transfer.state !== 'finished') throw new Error(`${kind}: ${transfer.state} ${transfer.error}`);
  return transfer;
}
const known = (page) => page.evaluate(() => zulApp.transfers().map((t) => t.number));

async function upload(page, file) {
  const seen = await known(page);
  const t0 = performance.now();
  await page.locator('#upload-input').setInputFiles(file);
  const transfer = await transferEnded(page, 'upload', seen);
  return { ms: performance.now() - t0, transfer };
}

// Downloads `name` from the folder the sheet shows.
async function download(page, name) {
  const seen = await known(page);
  const t0 = performance.now();
  const [saved] = await Promise.all([page.waitForEvent('download', { timeout: 30 * 60000 }),
    page.locator(`#file-list button[data-name="${name}"]`).tap()]);
  await transferEnded(page, 'download', seen);
  const ms = performance.now() - t0;
  await saved.delete();
  return ms;
}

async function openFilesAt(page, folder) {
  if (await page.locator('#files').isHidden()) await page.locator('#open-files').tap();
  await page.locator('#crumbs button').first().tap();
  for (const name of folder.split('/').filter(Boolean)) {
    await page.locator(`#file-list button[data-name="${name}"]`).tap();
  }
}

function makeFile(file, bytes) {
  must(`head -c ${bytes} /dev/urandom > '${file}'`);
  return file;
}

// ---- the run -------------------------------------------------------------------

async function main() {
  for (const program of ['Xvfb', '/usr/bin/chromium']) {
    if (run(`command -v ${program}`).status !== 0) throw new Error(`${program} is not installed`);
  }
  const xvfb = start('Xvfb', ['-displayfd', '1', '-screen', '0', '1280x720x24', '-nolisten', 'tcp']);
  env.DISPLAY = `:${(await xvfb.waitFor(/^\d+$/)).trim()}`;
  let server = start('node', [path.join(root, 'server/server.js'), '--dev', '--port', '0',
    '--host', '0.0.0.0']);
  const port = (await server.waitFor('listening on')).split(':').pop();
  const url = `http://localhost:${port}`;
  let agent = start(process.env.ZUL_AGENT_PATH, ['--real-agent'],
    { ...env, ZUL_SIGNALING_URL: url });

  const page = await phone();
  const link = (await agent.waitFor('zul://pair?payload=')).trim();
  await agent.waitFor('connected to the server');
  await page.goto(`${url}/#${link}`);
  await page.waitForSelector('#notice:not([hidden])[data-code=pair-ask]', { timeout: 60000 });
  await page.locator('#notice-actions button', { hasText: 'Сопрячь' }).tap();
  await connected(page);
  const deviceId = await page.evaluate(() => zulApp.deviceId());
  must(`'${process.env.ZUL_TRUSTED_DEVICES_PATH}' grant ${deviceId} shell`,
    { env: { ...process.env, ...env } });
  await page.locator('[data-action=disconnect]').tap();
  await page.locator('#computers li .connect').tap();
  await connected(page);
  const pid = agent.child.pid;
  await sleep(2000);
  const idle = rssKiB(pid);
  say(`agent idle with a phone in session: ${mib(idle)} MiB resident; the connection: ${await page.evaluate(() => zulApp.route())}`);
  // What the picture alone costs (a still screen), for the transfers' shares below.
  say(`  with the picture alone for 5 s: ${shares(await cpuWhile(pid, sleep(5000)))} (load ${load()})`);

  // -- files on loopback
  if (!skip.has('files')) await filesBench(page, pid);

  // -- the shell
  if (!skip.has('shell')) await shellBench(page, pid, idle);

  // -- files through the throttled link
  if (!skip.has('throttled')) {
    const link4 = throttledLink('4mbit', 25);
    if (typeof link4 === 'string') {
      say(`\nthrottled link: left out (${link4})`);
    } else {
      await stop(agent);
      await stop(server); // again on every address, for the agent in the namespace
      server = start('node', [path.join(root, 'server/server.js'), '--dev', '--port', port,
        '--host', '0.0.0.0']);
      await server.waitFor('listening on');
      agent = start('ip', ['netns', 'exec', link4.name, process.env.ZUL_AGENT_PATH, '--real-agent'],
        { ...env, ZUL_SIGNALING_URL: `http://${OUTSIDE}:${port}` });
      await agent.waitFor('connected to the server');
      await page.reload();
      await page.locator('#computers li .connect').tap();
      await connected(page);
      const size = 8 * MiB;
      const small = makeFile(path.join(work, 'small.bin'), size);
      copyFileSync(small, path.join(env.HOME, 'small.bin'));
      await openFilesAt(page, '');
      await sleep(3000); // the video's first burst is over
      const linkBytes = 4e6 / 8;
      // What shared the link with the download: the picture, the headers.
      const video = () => page.evaluate(() => zulApp.received());
      const u = await upload(page, small);
      await openFilesAt(page, '');
      const v0 = await video();
      const d = await download(page, 'small.bin');
      const v1 = await video();
      say(`\nfiles, 8 MiB through 4 Mbit/s (${link4.shaping})   kB/s   share of the link   (load ${load()})`);
      for (const [what, ms] of [['upload', u.ms], ['download', d]]) {
        const bytesPerSecond = size / (ms / 1000);
        say(`  Velto ${what.padEnd(8)}                 ${(bytesPerSecond / 1000).toFixed(0).padStart(6)}   ${(100 * bytesPerSecond / linkBytes).toFixed(1)} %   (target: at least 90 %)`);
      }
      const share = (bytes) => `${(100 * bytes / (linkBytes * d / 1000)).toFixed(1)} %`;
      say(`  during the download: the picture ${share(v1.video - v0.video)} of the link ` +
        `(${v1.frames - v0.frames} frames, ${v1.keyFrames - v0.keyFrames} key frames in ${(d / 1000).toFixed(1)} s); ` +
        `the files channel's messages ${share(v1.files - v0.files)}, the connection in all ${share(v1.all - v0.all)} ` +
        '(less UDP and IP headers)');
    }
  }
}

async function filesBench(page, pid) {
  const big = makeFile(path.join(work, 'big.bin'), 256 * MiB);
  copyFileSync(big, path.join(env.HOME, 'big.bin'));
  await openFilesAt(page, '');
  say(`\nfiles, 256 MiB, loopback             MB/s (MiB/s)   time   (load ${load()})`);
  const upCpu = await cpuWhile(pid, upload(page, big));
  const up = upCpu.value;
  const uploadFolder = up.transfer.folder;
  say(`  Velto upload                       ${rate(256 * MiB, up.ms).toFixed(1).padStart(6)}       ${(up.ms / 1000).toFixed(2)} s   ${shares(upCpu)}; load ${load()}`);
  await openFilesAt(page, '');
  const downCpu = await cpuWhile(pid, download(page, 'big.bin'));
  const downMs = downCpu.value;
  say(`  Velto download                     ${rate(256 * MiB, downMs).toFixed(1).padStart(6)}       ${(downMs / 1000).toFixed(2)} s   ${shares(downCpu)}; load ${load()}`);
  const scp = skip.has('scp') ? 'left out' : await startSshd();
  if (typeof scp === 'function') {
    const upScp = scp(big, `127.0.0.1:${work}/scp-up.bin`);
    const downScp = scp(`127.0.0.1:${big}`, `${work}/scp-down.bin`);
    say(`  scp upload                         ${rate(256 * MiB, upScp).toFixed(1).padStart(6)}       ${(upScp / 1000).toFixed(2)} s   load ${load()}`);
    say(`  scp download                       ${rate(256 * MiB, downScp).toFixed(1).padStart(6)}       ${(downScp / 1000).toFixed(2)} s   load ${load()}`);
    rmSync(`${work}/scp-up.bin`, { force: true });
    rmSync(`${work}/scp-down.bin`, { force: true });
  } else {
    say(`  scp: ${scp || 'left out (no /usr/sbin/sshd: scripts/setup bench installs it)'}`);
  }
  rmSync(path.join(env.HOME, uploadFolder), { recursive: true, force: true });

  if (!skip.has('gib')) {
    // The agent's resident memory while 1 GiB goes each way.
    const gib = makeFile(path.join(work, 'gib.bin'), 1024 * MiB);
    rmSync(big, { force: true });
    rmSync(path.join(env.HOME, 'big.bin'), { force: true });
    const before = rssKiB(pid);
    const sent = await peakWhile(pid, upload(page, gib));
    const folder = sent.value.transfer.folder;
    await openFilesAt(page, folder);
    const back = await peakWhile(pid, download(page, sent.value.transfer.name));
    say(`\nagent memory during 1 GiB (before ${mib(before)} MiB):`);
    say(`  upload   peak ${mib(sent.peak)} MiB, rise ${mib(sent.peak - before)} MiB at ${rate(1024 * MiB, sent.value.ms).toFixed(1)} MB/s`);
    say(`  download peak ${mib(back.peak)} MiB, rise ${mib(back.peak - before)} MiB at ${rate(1024 * MiB, back.value).toFixed(1)} MB/s   (target: rise at most 32 MiB)`);
    rmSync(gib, { force: true });
    rmSync(path.join(env.HOME, folder), { recursive: true, force: true });
  }
  await page.locator('#close-files').tap();
}

async function shellBench(page, pid, idle) {
  const lines = 64 * MiB / 77;
  must(`base64 -w 76 /dev/urandom | head -n ${Math.floor(lines)} > '${env.HOME}/out.txt'`);
  const outBytes = statSync(path.join(env.HOME, 'out.txt')).size;
  await page.locator('#open-terminal').tap();
  const typing = page.locator('#term-host .xterm-helper-textarea');
  await typing.waitFor({ state: 'attached' });
  await typing.focus();
  await page.keyboard.type('PS1="$ "; echo ready-$((2*21))');
  await page.keyboard.press('Enter');
  await page.waitForFunction(() => /^ready-42\s*$/m.test(zulApp.terminalText()), null, { timeout: 30000 });

  // Keystroke to echo: each key's time from its keydown in the page to the
  // moment its echo is in the terminal's buffer (parsed) and on screen (drawn).
  await page.evaluate(() => {
    const term = zulApp.terminal();
    const area = document.querySelector('#term-host .xterm-helper-textarea');
    const echo = { typed: '', pending: null, parsed: [], drawn: [] };
    window.zulEcho = echo;
    const line = () => {
      const buffer = term.buffer.active;
      return buffer.getLine(buffer.baseY + buffer.cursorY)?.translateToString(true) || '';
    };
    area.addEventListener('keydown', (e) => {
      if (e.ctrlKey) { echo.typed = ''; return; }
      if (e.key.length !== 1) return;
      echo.typed += e.key;
      echo.pending = { t0: performance.now(), text: echo.typed, parsed: 0 };
    }, true);
    term.onWriteParsed(() => {
      const p = echo.pending;
      if (p && !p.parsed && line().endsWith(p.text)) p.parsed = performance.now();
    });
    term.onRender(() => {
      const p = echo.pending;
      if (p && p.parsed) {
        echo.parsed.push(p.parsed - p.t0);
        echo.drawn.push(performance.now() - p.t0);
        echo.pending = null;
        echo.wake?.();
      }
    });
  });
  const keys = 300;
  for (let i = 0; i < keys; i += 1) {
    if (i % 25 === 0) await page.keyboard.press('Control+U');
    await page.keyboard.press(String.fromCharCode(97 + (i % 26)));
    // Waited for in the page, not polled at every frame: the polls would
    // keep the page drawing frames.
    await page.evaluate((n) => new Promise((resolve, reject) => {
      const check = () => (zulEcho.drawn.length > n ? resolve() : (zulEcho.wake = check));
      setTimeout(() => reject(new Error('no echo within 10 s')), 10000);
      check();
    }), i)
      .catch(async (error) => {
        const seen = await page.evaluate(() => [zulEcho, zulApp.terminalText().trim().split('\n').slice(-3)]);
        throw new Error(`${error.message}\n${JSON.stringify(seen)}`);
      });
  }
  await page.keyboard.press('Control+U');
  const echo = await page.evaluate(() => ({ parsed: zulEcho.parsed, drawn: zulEcho.drawn }));
  const pct = (list, p) => [...list].sort((a, b) => a - b)[Math.min(list.length - 1,
    Math.floor(list.length * p))].toFixed(1);
  say(`\nshell: keystroke to echo, ${echo.drawn.length} keys      p50      p95   (load ${load()})`);
  say(`  in the terminal's buffer          ${pct(echo.parsed, 0.5).padStart(5)} ms ${pct(echo.parsed, 0.95).padStart(6)} ms`);
  say(`  drawn (the page's next frame)     ${pct(echo.drawn, 0.5).padStart(5)} ms ${pct(echo.drawn, 0.95).padStart(6)} ms   (target: p50 < 5 ms, p95 < 15 ms; ${await renderer(page)})`);
  say('  (frames at 60 Hz, as on a phone: "drawn" holds the wait for the next one, 0-16.7 ms)');

  // Output: cat of 64 MiB until the marker after it is drawn.
  // Only the lines at the cursor are looked at: reading the whole buffer at
  // every frame would slow the page it measures.
  await page.evaluate(() => {
    const term = zulApp.terminal();
    window.zulOut = { done: 0 };
    term.onRender(() => {
      const buffer = term.buffer.active;
      let tail = '';
      for (let y = Math.max(0, buffer.baseY + buffer.cursorY - 2); y <= buffer.baseY + buffer.cursorY; y += 1) {
        tail += `${buffer.getLine(y)?.translateToString(true)}\n`;
      }
      if (!zulOut.done && /^end-of-cat-7\s*$/m.test(tail)) zulOut.done = performance.now();
    });
  });
  // The login shell starts in the user's own home, not in the agent's HOME.
  await page.keyboard.type(`cat '${env.HOME}/out.txt'; echo end-of-cat-$((3+4))`);
  const loadBefore = load();
  const drawn = await peakWhile(pid, cpuWhile(pid, page.keyboard.press('Enter').then(() =>
    page.waitForFunction(() => zulOut.done > 0, null, { timeout: 20 * 60000, polling: 200 }))));
  const ms = drawn.value.wall * 1000;
  say(`\nshell: cat of ${(outBytes / MiB).toFixed(0)} MiB until drawn: ${rate(outBytes, ms).toFixed(1)} MB/s ` +
    `(${(ms / 1000).toFixed(1)} s; target at least 20 MB/s; load ${loadBefore} before, ${load()} after)`);
  say(`  ${shares(drawn.value)}; agent memory peak ${mib(drawn.peak)} MiB (idle ${mib(idle)} MiB)` +
    (dropped ? `; xterm.js dropped output ${dropped} times` : ''));

  // yes for 20 s: the agent's memory stays put.
  await page.keyboard.type('yes');
  await page.keyboard.press('Enter');
  const yes = await peakWhile(pid, sleep(20000));
  await page.keyboard.press('Control+C');
  say(`shell: \`yes\` for 20 s: agent memory peak ${mib(yes.peak)} MiB, ${mib(yes.peak - idle)} MiB above idle (target: at most 32 MiB; load ${load()})`);
  await page.locator('#term-close-shell').tap();
  await page.locator('#close-terminal').tap();
}

main().then(cleanUp, async (error) => {
  console.error(error.stack || error.message);
  await cleanUp();
  process.exit(1);
});
