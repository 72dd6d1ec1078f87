// The phone web app (phone/app) as a person uses it, in Debian's Chromium at
// a phone's size with touch, against the real agent on a private 1920x1080
// X server with two monitors, a session bus with the accessibility registry,
// the GTK test window and the rendezvous service (two instances sharing Redis
// behind HAProxy, one of which dies on the way), all started once.
// The checks run in order; each builds on the state the previous one left.
//
// Environment: ZUL_AGENT_PATH and ZUL_TRUSTED_DEVICES_PATH (set by CTest).

import { spawn, spawnSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { randomBytes } from 'node:crypto';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { fileURLToPath } from 'node:url';
import { children, freePort, sleep, start } from '../support/processes.mjs';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..', '..');
const { chromium } = createRequire(path.join(root, 'phone', 'package.json'))('playwright-core');
const SECONDS = 1000;

const work = mkdtempSync(path.join(tmpdir(), 'zul-phone-app-'));
const env = {
  XDG_RUNTIME_DIR: work,
  XDG_DATA_HOME: path.join(work, 'data'),
  ZUL_SECRET_BACKEND: 'file',
  ZUL_VERBOSE: '1', // the checks read the agent's detailed lines
  GDK_BACKEND: 'x11',
  HOME: path.join(work, 'home'), // the files the phone reaches
};
mkdirSync(env.HOME);
delete process.env.NO_AT_BRIDGE; // the GTK window must be accessible
delete process.env.GTK_MODULES;
let xvfb;
let agent;
let server;
let testApp;
let page;
let first; // the first phone, once a second one took over
let touch; // the DevTools session that sends multi-finger touches

before(async () => {
  assert.ok(process.env.ZUL_AGENT_PATH && process.env.ZUL_TRUSTED_DEVICES_PATH,
    'ZUL_AGENT_PATH and ZUL_TRUSTED_DEVICES_PATH name the programs under test');
  xvfb = start('Xvfb', ['-displayfd', '1', '-screen', '0', '1920x1080x24', '-nolisten',
    'tcp', '-noreset']);
  env.DISPLAY = `:${(await xvfb.waitFor(/^\d+$/)).trim()}`;
  const x = (command) => assert.equal(spawnSync('sh', ['-c', command],
    { env: { ...process.env, ...env } }).status, 0, command);
  // Two monitors side by side; the root painted a colour the picture must show.
  x('xrandr --setmonitor zul-left 960/254x1080/286+0+0 screen >/dev/null');
  x('xrandr --setmonitor zul-right 960/254x1080/286+960+0 none >/dev/null');
  x('xsetroot -solid "#2080e0"');

  const bus = start('dbus-daemon', ['--session', '--nofork', '--print-address=1']);
  env.DBUS_SESSION_BUS_ADDRESS = (await bus.waitFor('unix:')).trim();
  // The accessibility bus and its registry, up before the first client.
  x('for i in $(seq 200); do a=$(echo $(dbus-send --session --dest=org.a11y.Bus --print-reply=literal '
    + '/org/a11y/bus org.a11y.Bus.GetAddress)) && dbus-send --bus=$a --dest=org.a11y.atspi.Registry '
    + '--print-reply /org/a11y/atspi/accessible/root org.a11y.atspi.Accessible.GetChildren '
    + '>/dev/null 2>&1 && exit 0; sleep 0.1; done; exit 1');
  testApp = start('/usr/bin/python3', [path.join(root, 'tests/integration/apps/zul_test_app.py')],
    env);
  await testApp.waitFor(/^ready /);

  env.ZUL_SIGNALING_URL = `http://localhost:${await startCluster()}`;
  agent = start(process.env.ZUL_AGENT_PATH, ['--real-agent'], env);

  page = await newPhone(await launch());
  touch = await page.context().newCDPSession(page);
});

after(async () => {
  for (const b of browsers) await b.close();
  for (const child of children.reverse()) child.kill('SIGTERM');
  rmSync(work, { recursive: true, force: true });
});

// ---- the service: two instances sharing Redis behind HAProxy --------------------
//
// HAProxy sends agents to instance a and phones to instance b (each the
// other's backup), so that every message between them crosses Redis.

const cluster = { instances: {}, ports: {} };

async function startInstance(name) {
  const instance = start('node', [path.join(root, 'server/server.js'), '--port',
    String(cluster.ports[name] ?? 0), '--log-format', 'text', '--trusted-proxy', '127.0.0.1'],
  { REDIS_URL: `redis://127.0.0.1:${cluster.redisPort}` });
  cluster.ports[name] = Number((await instance.waitFor('listening on')).split(':').pop());
  cluster.instances[name] = instance;
}

// The port agents and phones use.
async function startCluster() {
  cluster.redisPort = await freePort();
  cluster.redis = start('redis-server', ['--port', String(cluster.redisPort), '--bind', '127.0.0.1',
    '--save', '', '--appendonly', 'no']);
  await cluster.redis.waitFor('Ready to accept');
  await startInstance('a');
  await startInstance('b');
  const port = await freePort();
  const server = (name) => `  server ${name} 127.0.0.1:${cluster.ports[name]} check inter 250 fall 1 rise 1`;
  const config = path.join(work, 'haproxy.cfg');
  writeFileSync(config, ['defaults', '  mode http', '  option forwardfor', '  timeout connect 2s',
    '  timeout client 60s', '  timeout server 60s', '  timeout tunnel 1h',
    'frontend velto', `  bind 127.0.0.1:${port}`, '  acl phone url_param(role) -m str phone',
    '  use_backend phones if phone', '  default_backend agents',
    'backend agents', '  option httpchk GET /healthz', server('a'), `${server('b')} backup`,
    'backend phones', '  option httpchk GET /healthz', server('b'), `${server('a')} backup`, ''].join('\n'));
  cluster.haproxy = start('haproxy', ['-db', '-f', config]);
  for (const end = Date.now() + 30 * SECONDS; ; await sleep(50)) {
    if (await fetch(`http://127.0.0.1:${port}/healthz`).then((r) => r.ok, () => false)) break;
    assert.ok(Date.now() < end, 'HAProxy did not come up');
  }
  return port;
}

function stopCluster() {
  for (const child of [cluster.haproxy, cluster.instances.a, cluster.instances.b]) {
    child.child.kill('SIGKILL');
  }
}

// ---- the phone -----------------------------------------------------------------

const browsers = [];
async function launch(extraArgs = []) {
  const launched = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync',
      ...extraArgs],
  });
  browsers.push(launched);
  return launched;
}

// What the service's security policy refused any phone: the app needs nothing it refuses.
const refused = [];

// A phone of its own (storage, keys) in a browser.
async function newPhone(where) {
  const context = await where.newContext({ viewport: { width: 390, height: 844 },
    hasTouch: true, isMobile: true, locale: 'ru-RU', permissions: ['camera'] });
  const phone = await context.newPage();
  phone.on('console', (m) => /Content Security Policy/.test(m.text()) && refused.push(m.text()));
  return phone;
}

const connected = (phone = page) => phone.waitForSelector('body[data-state=connected]',
  { timeout: 60 * SECONDS });
const noticeSays = (phone, code) => phone.waitForSelector(
  `#notice:not([hidden])[data-code=${code}]`, { timeout: 60 * SECONDS });

// Where on the page a video pixel is shown.
async function onPage(vx, vy) {
  return page.evaluate(([x, y]) => {
    const video = document.getElementById('screen');
    const r = video.getBoundingClientRect();
    return { x: r.left + x * r.width / video.videoWidth, y: r.top + y * r.height / video.videoHeight };
  }, [vx, vy]);
}

// Fingers: each step is a list of [x, y] points (one per finger) or null (all up).
async function fingers(steps, pauseMs = 16) {
  let down = 0;
  for (const step of steps) {
    const points = (step || []).map(([x, y], id) => ({ x, y, id }));
    const type = !step ? 'touchEnd' : down === 0 ? 'touchStart' : 'touchMove';
    await touch.send('Input.dispatchTouchEvent', { type, touchPoints: points });
    down = points.length;
    await sleep(pauseMs);
  }
}

// `count` evenly spaced steps from `a` to `b` for each finger.
function glide(from, to, count) {
  return Array.from({ length: count }, (_, i) => from.map(([x, y], f) =>
    [x + ((to[f][0] - x) * (i + 1)) / count, y + ((to[f][1] - y) * (i + 1)) / count]));
}

// The GTK window's lines from a mark on.
const appLines = (mark) => testApp.lines.slice(mark);
function nearly(line, [x, y], slack) {
  const [lx, ly] = line.split(' ').slice(-2).map(Number);
  return Math.abs(lx - x) <= slack && Math.abs(ly - y) <= slack;
}

test('a link whose fingerprint signature is forged is refused in words and stores nothing', async () => {
  const link = (await agent.waitFor('zul://pair?payload=', { timeout: 60 * SECONDS })).trim();
  const payload = JSON.parse(new URLSearchParams(link.split('?')[1]).get('payload'));
  const last = payload.dtlsFingerprint.at(-1);
  payload.dtlsFingerprint = payload.dtlsFingerprint.slice(0, -1) + (last === 'A' ? 'B' : 'A');
  await page.goto(env.ZUL_SIGNALING_URL);
  await page.locator('#add').tap();
  await page.locator('#link').fill(`zul://pair?payload=${encodeURIComponent(JSON.stringify(payload))}`);
  await page.locator('#paste [type=submit]').tap();
  await noticeSays(page, 'fingerprint-signature');
  assert.match(await page.locator('#notice-text').textContent(), /Подпись QR-кода неверна/);
  // Closing the notice goes back to where the person was.
  await page.locator('#notice-actions button', { hasText: 'Закрыть' }).tap();
  await page.waitForSelector('body[data-screen=scan]');
  await page.locator('#scan [data-action=home]').tap();
  await page.waitForSelector('#empty:not([hidden])');
});

let pad; // the GTK window's pad in root (= video) pixels: x, y, w, h
test('pairs from the QR link and shows the screen', async () => {
  pad = testApp.lines.find((l) => l.startsWith('ready ')).split(' ').slice(5, 9).map(Number);
  const link = (await agent.waitFor('zul://pair?payload=', { timeout: 60 * SECONDS })).trim();
  await agent.waitFor('signaling: connected', { timeout: 60 * SECONDS });
  await page.goto('about:blank'); // the link after "#" is read when the app opens
  await page.goto(`${env.ZUL_SIGNALING_URL}/#${link}`);
  // A link opened from outside asks first, the clipboard and files allowed unless unticked.
  await noticeSays(page, 'pair-ask');
  assert.deepEqual(await page.locator('#notice-extra input[type=checkbox]')
    .evaluateAll((boxes) => boxes.map((b) => b.checked)), [true, true]);
  await page.locator('#notice-actions button', { hasText: 'Сопрячь' }).tap();
  await connected();
  await page.waitForFunction(() => zulApp.video().width > 0);
  // The left monitor, at its own size; a picker offers both.
  assert.deepEqual(await page.evaluate(() => zulApp.video()), { width: 960, height: 1080 });
  assert.equal(await page.locator('#monitors button').count(), 2);
});

test('comes back after a reload with one tap, without pairing', async () => {
  await page.reload();
  const [forget, card] = await page.locator('#computers li .forget').evaluate((button) =>
    [button, button.closest('li')].map((e) => e.getBoundingClientRect().right));
  assert.ok(forget > 0 && forget <= card, `«Забыть» is cut off at the card's edge: ${forget} > ${card}`);
  assert.equal(await page.locator('#computers li').count(), 1);
  await page.locator('#computers li .connect').tap();
  await connected();
  await page.waitForFunction(() => zulApp.video().width > 0);
});

test('the instance holding the agent dies: the agent is back through the other within 5 s, and so is the phone', async () => {
  const agentId = JSON.parse(new URLSearchParams(agent.lines.find((l) =>
    l.startsWith('zul://pair?payload=')).split('?')[1]).get('payload')).agentId;
  await cluster.instances.a.waitFor(`agent ${agentId} connected`);
  await cluster.instances.b.waitFor(/^rendezvous: phone .* connected to /);
  // First the agents' instance, then (the agent now on a) the phones'.
  for (const [dying, other] of [['a', 'b'], ['b', 'a']]) {
    const mark = agent.lines.length;
    const otherMark = cluster.instances[other].lines.length;
    const killedAt = Date.now();
    cluster.instances[dying].child.kill('SIGKILL');
    await agent.waitFor('signaling: connected', { from: mark, timeout: 5 * SECONDS });
    assert.ok(Date.now() - killedAt < 5 * SECONDS, `back after ${Date.now() - killedAt} ms`);
    await cluster.instances[other].waitFor(`agent ${agentId} connected`, { from: otherMark });
    await page.locator('[data-action=disconnect]').tap();
    await page.locator('#computers li .connect').tap();
    await connected();
    await cluster.instances[other].waitFor(`session for `, { from: otherMark });
    await startInstance(dying);
  }
  await page.waitForFunction(() => zulApp.video().width > 0);
});

// Waits until the video shows each [x, y, [r, g, b]] (within a codec's slack).
function pictureShows(samples) {
  return page.waitForFunction((cases) => {
    const video = document.getElementById('screen');
    const canvas = document.createElement('canvas');
    [canvas.width, canvas.height] = [video.videoWidth, video.videoHeight];
    const context = canvas.getContext('2d');
    context.drawImage(video, 0, 0);
    return cases.every(([x, y, rgb]) => {
      const pixel = context.getImageData(x, y, 1, 1).data;
      return rgb.every((c, i) => Math.abs(pixel[i] - c) <= 24);
    });
  }, samples, { timeout: 30 * SECONDS });
}
const ROOT = [0x20, 0x80, 0xe0];
const WINDOW = [0xf6, 0xf5, 0xf4]; // GTK's window background

test('the picture has the screen\'s colours', async () => {
  await pictureShows([[800, 1000, ROOT], [300, 300, WINDOW]]);
});

test('a frozen picture is not called connected', async () => {
  xvfb.child.kill('SIGSTOP'); // the agent's capture waits; its connection stays up
  try {
    await page.waitForSelector('body[data-state=reconnecting]', { timeout: 10 * SECONDS });
    assert.match(await page.locator('#waiting-text').textContent(), /переподключаемся/);
  } finally {
    xvfb.child.kill('SIGCONT');
  }
  await connected();
});

test('fingers reach the X server where the picture shows them', async (t) => {
  const centre = [pad[0] + pad[2] / 2, pad[1] + pad[3] / 2];
  await t.test('direct: pinched larger, a tap clicks, a long press right-clicks', async () => {
    const mid = await onPage(...centre);
    await fingers([[[mid.x - 20, mid.y], [mid.x + 20, mid.y]],
      ...glide([[mid.x - 20, mid.y], [mid.x + 20, mid.y]], [[mid.x - 60, mid.y], [mid.x + 60, mid.y]], 10),
      null]);
    assert.ok(await page.evaluate(() => zulApp.zoom()) > 2.5);
    for (const [hold, button] of [[0, 1], [700, 3]]) {
      const mark = testApp.lines.length;
      const at = await onPage(...centre);
      await fingers([[[at.x, at.y]]], hold);
      await fingers([null]);
      const press = await testApp.waitFor(`press ${button} `, { from: mark });
      assert.ok(nearly(press, centre, 2), `${press} is not at ${centre}`);
    }
  });

  await t.test('trackpad: the pointer moves relatively and a double-tap-and-hold drags', async () => {
    await page.locator('[data-mode=trackpad]').tap();
    // Glide slowly until the drawn pointer is over the pad's left part,
    // learning how far the pointer goes per finger pixel.
    const target = [pad[0] + 40, pad[1] + pad[3] / 2];
    let gain = 1;
    for (let i = 0; i < 8; i += 1) {
      const p = await page.evaluate(() => zulApp.pointer());
      const [dx, dy] = [(target[0] - p.x) / gain, (target[1] - p.y) / gain];
      if (Math.hypot(target[0] - p.x, target[1] - p.y) < 8) break;
      const scaled = Math.min(1, 150 / Math.hypot(dx, dy)); // stays on the phone
      await fingers([[[195, 500]], ...glide([[195, 500]],
        [[195 + dx * scaled, 500 + dy * scaled]], 20), null]);
      const q = await page.evaluate(() => zulApp.pointer());
      gain = Math.hypot(q.x - p.x, q.y - p.y) / Math.hypot(dx * scaled, dy * scaled) || 1;
      await sleep(350); // not a double tap
    }
    const start = await page.evaluate(() => zulApp.pointer());
    const mark = testApp.lines.length;
    await fingers([[[195, 500]], null, [[195, 500]], ...glide([[195, 500]], [[235, 500]], 20)]);
    await fingers([null]);
    const end = await page.evaluate(() => zulApp.pointer());
    assert.ok(end.x > start.x + 20, `the pointer did not travel: ${start.x} -> ${end.x}`);
    const press = await testApp.waitFor('press 1 ', { from: mark });
    const release = await testApp.waitFor('release 1 ', { from: mark });
    assert.ok(nearly(press, [start.x, start.y], 2), `${press} is not at ${start.x},${start.y}`);
    assert.ok(nearly(release, [end.x, end.y], 2), `${release} is not at ${end.x},${end.y}`);
    assert.ok(appLines(mark).some((l) => l.startsWith('drag ')));
  });

  await t.test('trackpad: two fingers scroll, one wheel step per 36 px; a two-finger tap right-clicks', async () => {
    const mark = testApp.lines.length;
    await fingers([[[150, 600], [230, 600]],
      ...glide([[150, 600], [230, 600]], [[150, 492], [230, 492]], 12), null]);
    // The right click comes after every wheel step on the same queue.
    await fingers([[[150, 600], [230, 600]], null]);
    const pointer = await page.evaluate(() => zulApp.pointer());
    const press = await testApp.waitFor('press 3 ', { from: mark });
    assert.ok(nearly(press, [pointer.x, pointer.y], 2), `${press} is not at the pointer`);
    const lines = appLines(mark);
    assert.equal(lines.slice(0, lines.indexOf(press)).filter((l) => l === 'scroll down').length, 3);
  });
});

test('typing sends Cyrillic text and the key bar\'s keys', async () => {
  await page.locator('#open-keyboard').tap();
  await page.locator('#typing').focus();
  for (const [action, expected] of [
    [() => page.keyboard.insertText('Привет, мир'), 'Привет, мир'],
    [() => page.locator('[data-key=BACKSPACE]').tap(), 'Привет, ми'],
    [() => page.keyboard.insertText('р!'), 'Привет, мир!'],
  ]) {
    const mark = testApp.lines.length;
    await action();
    await testApp.waitFor((line) => line === `text ${JSON.stringify(expected)}` ||
      (line.startsWith('text ') && JSON.parse(line.slice(5)) === expected), { from: mark });
  }
  await page.locator('#open-keyboard').tap();
});

test('the computer\'s notices show in words; a session ended there is not resumed by itself', async () => {
  for (const [reason, shown, words] of [
    ['desktopLost', '#desktop-lost:not([hidden])', /Экран компьютера пропал/],
    ['desktopBack', '#desktop-lost[hidden]', /./],
    ['agentPaused', '#notice:not([hidden])[data-code=computer-paused]', /Velto приостановлен/],
    ['sessionEnded', '#notice:not([hidden])[data-code=session-ended]', /Сеанс завершён на компьютере/],
  ]) {
    await page.evaluate((r) => zulApp.receive({ type: 'control.notice', reason: r, message: '' }),
      reason);
    assert.match(await (await page.waitForSelector(shown, { state: 'attached' })).textContent(),
      words);
  }
  assert.deepEqual(await page.evaluate(() => [zulApp.state, zulApp.retrying()]), ['closed', false]);
  await page.locator('#notice-actions button', { hasText: 'Подключиться' }).tap();
  await connected();
});

test('the clipboard goes both ways between the app and the desktop, in pieces', async () => {
  const xclip = { env: { ...process.env, ...env } };
  const onDesktop = () => spawnSync('xclip', ['-selection', 'clipboard', '-o'], xclip).stdout;
  const toDesktop = (text) => children.push(spawn('xclip', ['-selection', 'clipboard', '-i'],
    { ...xclip, stdio: ['pipe', 'ignore', 'ignore'] })) && children.at(-1).stdin.end(text);
  const big = 'Ёжик в тумане. '.repeat(20000); // several pieces each way
  const received = (text) => page.waitForFunction((t) =>
    document.getElementById('clip-text').value === t, text, { timeout: 30 * SECONDS });
  await page.locator('#open-clipboard').tap();
  await page.locator('#clip-types .none', { hasText: 'нет ни текста' }).waitFor();
  toDesktop(big);
  await page.locator('#clip-types button[data-type^="text/plain"]').tap();
  await received(big);
  await page.locator('#clip-out').fill(`${big}!`);
  await page.locator('#clip-send').tap();
  await page.locator('#clip-status', { hasText: 'Теперь это в буфере' }).waitFor();
  assert.ok(onDesktop().equals(Buffer.from(`${big}!`)), 'the desktop has other text');
  await page.locator('#clip-sync').tap(); // each change is fetched unasked
  toDesktop('из xclip');
  await received('из xclip');
  await page.locator('#close-clipboard').tap();
});

test('a file goes up into the upload folder and comes back down the same', async () => {
  const bytes = randomBytes(300000); // several pieces
  mkdirSync(path.join(env.HOME, 'many'));
  for (let i = 0; i < 205; i += 1) {
    writeFileSync(path.join(env.HOME, 'many', `f${String(i).padStart(3, '0')}`), '');
  }
  writeFileSync(path.join(env.HOME, '.velto-hidden'), '');
  await page.locator('#open-files').tap();
  // No shell granted yet: the sheet says where the terminal is allowed.
  assert.match(await page.locator('#terminal-hint').textContent(), /разрешить на компьютере/);
  // Hidden entries on request; a large folder in pages.
  const entry = (name) => page.locator(`#file-list button[data-name="${name}"]`);
  await entry('many').waitFor();
  assert.equal(await entry('.velto-hidden').count(), 0);
  await page.locator('#files-hidden').check();
  await entry('.velto-hidden').waitFor();
  await entry('many').tap();
  await page.locator('#files-more', { hasText: 'осталось 5' }).tap();
  await entry('f204').waitFor();
  assert.equal(await page.locator('#file-list li').count(), 205);
  assert.ok(await page.locator('#files-more').isHidden());
  await page.locator('#crumbs button').first().tap();
  await entry('many').waitFor();
  await page.locator('#upload-input').setInputFiles({ name: 'velto-test.bin',
    mimeType: 'application/octet-stream', buffer: bytes });
  const ended = (kind) => page.waitForFunction((k) => zulApp.transfers().find((t) =>
    t.kind === k && ['finished', 'failed', 'cancelled'].includes(t.state)), kind,
  { timeout: 30 * SECONDS }).then((handle) => handle.jsonValue());
  const up = await ended('upload');
  assert.equal(up.state, 'finished', up.error);
  assert.ok(readFileSync(path.join(env.HOME, up.folder, up.name)).equals(bytes));
  await page.locator('#files-status', { hasText: 'сохранён в' }).waitFor();
  for (const name of up.folder.split('/')) {
    await page.locator(`#file-list button[data-name="${name}"]`).tap();
  }

  // An upload cut by a lost connection goes on from what the computer holds.
  const big = path.join(work, 'resumed.bin');
  writeFileSync(big, randomBytes(24 << 20));
  await page.locator('#upload-input').setInputFiles(big);
  const confirmed = await (await page.waitForFunction(() => zulApp.transfers().find((t) =>
    t.name === 'resumed.bin' && t.done >= 1 << 20)?.done, null, { timeout: 60 * SECONDS })).jsonValue();
  await page.evaluate(() => zulApp.dropConnection());
  await connected();
  const resumed = await (await page.waitForFunction(() => zulApp.transfers().find((t) =>
    t.name === 'resumed.bin' && ['finished', 'failed', 'cancelled'].includes(t.state)), null,
  { timeout: 120 * SECONDS })).jsonValue();
  assert.equal(resumed.state, 'finished', resumed.error);
  assert.ok(resumed.from >= confirmed, `started again at ${resumed.from}, below ${confirmed}`);
  assert.ok(readFileSync(path.join(env.HOME, resumed.folder, resumed.name))
    .equals(readFileSync(big)), 'the resumed upload has other bytes');
  // A download is written to the phone's disk as it comes, and one cut off goes on from there.
  const saved = page.waitForEvent('download', { timeout: 120 * SECONDS });
  await page.locator(`#file-list button[data-name="${resumed.name}"]`).tap();
  const part = await (await page.waitForFunction(() => zulApp.transfers().find((t) =>
    t.kind === 'download' && t.done >= 1 << 20), null, { timeout: 60 * SECONDS })).jsonValue();
  assert.ok(part.onDisk, 'the download is kept in memory');
  assert.deepEqual(await page.evaluate(async () => Array.fromAsync((await (await navigator.storage
    .getDirectory()).getDirectoryHandle('downloads')).keys())), [String(part.number)]);
  await page.evaluate(() => zulApp.dropConnection());
  await connected();
  const down = await ended('download');
  assert.equal(down.state, 'finished', down.error);
  assert.ok(down.from >= part.done, `started again at ${down.from}, below ${part.done}`);
  assert.equal((await saved).suggestedFilename(), resumed.name);
  assert.ok(readFileSync(await (await saved).path()).equals(readFileSync(big)),
    'the download has other bytes');
  await page.locator('#close-files').tap();
});

test('a photo shared from another app goes to the upload folder', async () => {
  const photo = randomBytes(5000);
  await page.waitForFunction(() => navigator.serviceWorker.controller !== null);
  // What the phone's share sheet posts to the manifest's share target.
  const url = await page.evaluate(async (bytes) => {
    const form = new FormData();
    form.append('share-files', new File([new Uint8Array(bytes)], 'photo.jpg', { type: 'image/jpeg' }));
    return (await fetch('share', { method: 'POST', body: form })).url;
  }, [...photo]);
  assert.match(url, /share-files=1/);
  await page.goto(url);
  const shared = await (await page.waitForFunction(() => zulApp.transfers().find((t) =>
    t.name === 'photo.jpg' && ['finished', 'failed'].includes(t.state)), null,
  { timeout: 60 * SECONDS })).jsonValue();
  assert.equal(shared.state, 'finished', shared.error);
  assert.ok(readFileSync(path.join(env.HOME, shared.folder, shared.name)).equals(photo));
  await page.locator('#close-files').tap();
});

test('a terminal, once allowed at the computer, runs what is typed into it', async () => {
  assert.ok(await page.locator('#open-terminal').isHidden());
  const deviceId = await page.evaluate(() => zulApp.deviceId());
  assert.equal(spawnSync(process.env.ZUL_TRUSTED_DEVICES_PATH, ['grant', deviceId, 'shell'],
    { env: { ...process.env, ...env } }).status, 0);
  // The shells are told at hello: connected again.
  await page.locator('[data-action=disconnect]').tap();
  await page.locator('#computers li .connect').tap();
  await connected();
  await page.locator('#open-terminal').tap();
  const typing = page.locator('#term-host .xterm-helper-textarea');
  await typing.waitFor({ state: 'attached' });
  await typing.focus();
  await page.keyboard.type("printf 'velto-%s \\320\\266\\n' $((6*7))"); // UTF-8 comes as text
  await page.keyboard.press('Enter');
  await page.waitForFunction(() => /^velto-42 ж\s*$/m.test(zulApp.terminalText()), null,
    { timeout: 30 * SECONDS });
  // Characters cut by the messages' ends arrive whole.
  await page.keyboard.type("printf '\\320\\266%.0s' $(seq 40000); echo; echo whole-$((2*3))");
  await page.keyboard.press('Enter');
  await page.waitForFunction(() => /^whole-6\s*$/m.test(zulApp.terminalText()), null, { timeout: 30 * SECONDS });
  assert.equal((await page.evaluate(() => zulApp.terminalText())).match(/ж/g).length, 40001);
  // A lost connection: the shell is found again, with what it wrote meanwhile.
  await page.keyboard.type('sleep 1; echo later-$((5*5))');
  await page.keyboard.press('Enter');
  await page.evaluate(() => {
    zulApp.terminal().reset();
    zulApp.dropConnection();
  });
  await connected();
  await page.waitForFunction(() => /^velto-42 ж\s*$/m.test(zulApp.terminalText()) &&
    /^later-25\s*$/m.test(zulApp.terminalText()), null, { timeout: 30 * SECONDS });
  await page.locator('#term-close-shell').tap();
  await page.locator('#term-host .term').waitFor({ state: 'detached' });
  await page.locator('#close-terminal').tap();
  assert.deepEqual(refused, []);
});

test('an element from the list is invoked in the window', async () => {
  await page.locator('#open-elements').tap();
  await page.locator('#element-search').fill('press');
  const item = page.locator('#element-list button', { hasText: 'Press me' });
  await item.waitFor({ timeout: 30 * SECONDS }).catch(async (error) => {
    const list = await page.locator('#element-list').textContent();
    const scans = agent.lines.filter((l) => /scene|semantic|snapshot/.test(l)).slice(-6);
    throw new Error(`${error.message}\nthe list: ${list}\nthe agent:\n${scans.join('\n')}`);
  });
  assert.equal(await item.locator('.role').textContent(), 'button');
  const mark = testApp.lines.length;
  await item.tap();
  await testApp.waitFor('clicked Press me', { from: mark });
  await page.locator('#close-elements').tap();
});

test('the monitor picker switches to the other screen and its picture', async () => {
  const mark = agent.lines.length;
  await page.locator('#monitors button[data-index="1"]').tap();
  await agent.waitFor('selected display 1', { from: mark });
  await page.waitForSelector('#monitors button[data-index="1"][aria-checked=true]');
  await pictureShows([[300, 300, ROOT]]);
});

test('a second phone pairs with its camera, is refused until it takes over; the first is told', async () => {
  const links = agent.lines.filter((l) => l.startsWith('zul://pair?payload='));
  assert.ok(links.length >= 2, 'the agent printed no fresh link after the first pairing');
  // The QR code as the camera sees it: what ./dev prints, in a video file.
  const qr = (name) => path.join(work, name);
  const run = (command, args) => assert.equal(spawnSync(command, args).status, 0, command);
  run('qrencode', ['-s', '5', '-m', '4', '-o', qr('qr.png'),
    `${env.ZUL_SIGNALING_URL}/#${links.at(-1).trim()}`]);
  run('ffmpeg', ['-loglevel', 'error', '-y', '-loop', '1', '-i', qr('qr.png'), '-t', '1', '-vf',
    'pad=ceil(iw/2)*2:ceil(ih/2)*2:color=white,format=yuv420p', qr('qr.y4m')]);
  const second = await newPhone(await launch(['--use-fake-ui-for-media-stream',
    '--use-fake-device-for-media-stream', `--use-file-for-fake-video-capture=${qr('qr.y4m')}`]));
  await second.goto(env.ZUL_SIGNALING_URL);
  await second.locator('#add').tap();
  await noticeSays(second, 'another-session');
  await second.locator('#notice-actions button', { hasText: 'Перехватить' }).tap();
  await connected(second);
  // The agent closes the first phone's connection; it comes back, is refused, and says why.
  await noticeSays(page, 'taken-over');
  first = page;
  page = second;
});

test('a revoked phone is told so, pairs again as the same phone, and a forget revokes it there', async () => {
  const deviceId = await page.evaluate(() => zulApp.deviceId());
  const devices = (...args) => spawnSync(process.env.ZUL_TRUSTED_DEVICES_PATH, args,
    { env: { ...process.env, ...env } });
  assert.equal(devices('revoke', deviceId).status, 0);
  await noticeSays(page, 'device-revoked');
  assert.match(await page.locator('#notice-text').textContent(), /удалён из доверенных/);
  assert.equal(await page.locator('#notice-actions button').count(), 3);
  // Paired again: the computer's one record of this phone is trusted again.
  const link = await agent.waitFor('zul://pair?payload=',
    { from: agent.lines.findLastIndex((l) => l.startsWith('paired: ')) });
  await page.goto('about:blank');
  await page.goto(`${env.ZUL_SIGNALING_URL}/#${link.trim()}`);
  await page.locator('#notice-actions button', { hasText: 'Сопрячь' }).tap();
  await connected();
  const records = (state) => devices('list').stdout.toString().split('\n')
    .filter((l) => l.startsWith(`${deviceId}  ${state}`)).length;
  assert.deepEqual([await page.evaluate(() => zulApp.deviceId()), records('')], [deviceId, 1]);
  assert.equal(records('trusted'), 1);
  page.once('dialog', (dialog) => dialog.accept());
  await page.locator('[data-action=disconnect]').tap();
  await page.locator('#computers li .forget').tap();
  await page.locator('#toast', { hasText: 'Забыто на телефоне и на компьютере' }).waitFor();
  assert.equal(records('revoked'), 1);
});

test('with the server gone: the live connection takes over, a new one is refused in words, the app still opens', async () => {
  stopCluster();
  await first.locator('#notice-actions button', { hasText: 'Перехватить' }).tap({ timeout: 20 * SECONDS })
    .catch(async (error) => {
      const shown = await first.evaluate(() => ({ state: document.body.dataset.state,
        code: document.querySelector('#notice')?.dataset.code,
        hidden: document.querySelector('#notice')?.hidden,
        text: document.querySelector('#notice-text')?.textContent }));
      throw new Error(`${error.message}\nthe first phone: ${JSON.stringify(shown)}`);
    });
  await connected(first);
  await first.locator('[data-action=disconnect]').tap();
  await first.locator('#computers li .connect').tap();
  await noticeSays(first, 'server-unreachable');
  assert.match(await first.locator('#notice-text').textContent(),
    new RegExp(`Сервер Velto по адресу ${new URL(env.ZUL_SIGNALING_URL).host} не отвечает`));
  // The service worker's shell opens the app without its server.
  await first.reload();
  await first.waitForSelector('body[data-ready="1"]');
  assert.equal(await first.locator('#computers li').count(), 1);
});

test('an offer with another certificate than the paired one is refused in words, with no hello', async () => {
  const mark = agent.lines.length;
  server = start('node', [path.join(root, 'server/server.js'), '--dev', '--port',
    new URL(env.ZUL_SIGNALING_URL).port, '--tamper-offer-fingerprint']);
  await agent.waitFor('signaling: connected', { from: mark, timeout: 60 * SECONDS });
  await first.locator('#computers li .connect').tap();
  await noticeSays(first, 'fingerprint');
  assert.match(await first.locator('#notice-text').textContent(), /не тот сертификат/);
  assert.ok(!agent.lines.slice(mark).some((l) => l.includes('data channel open')));
});
