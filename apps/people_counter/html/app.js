// The people counter's page: live counts from ?action=status, the snapshot refreshed as the
// application writes it, and the settings (language, an area's corners) read with
// ?action=getConfig and stored with a POST of the whole configuration text to ?action=setConfig.
'use strict';

const api = 'app.cgi?action=';
const languages = ['en', 'es', 'de', 'fr', 'it', 'pt', 'nl', 'pl', 'cs', 'sv', 'fi', 'ru', 'tr',
                   'ja', 'ko', 'zh', 'zh-TW', 'th', 'vi'];
let config = null;       // the parsed configuration
let shownSnapshot = -2;  // the snapshot frame on screen
let dragging = -1;       // the corner being dragged

const $ = (id) => document.getElementById(id);

// The configuration text, token by token, in the order the application writes it.
function parseConfig(text) {
  const tokens = text.trim().split(/\s+/);
  let at = 0;
  const next = () => {
    if (at >= tokens.length) throw new Error('the configuration ends early');
    return tokens[at++];
  };
  const int = () => parseInt(next(), 10);
  const num = () => parseFloat(next());
  const polygon = () => {
    const active = int() === 1;
    const count = int();
    const points = [];
    for (let i = 0; i < count; ++i) points.push([num(), num()]);
    return { active, points };
  };
  const parsed = { version: int(), language: next(), controlPoints: int() };
  parsed.areas = [];
  for (let n = int(), i = 0; i < n; ++i) {
    const area = polygon();
    area.seconds = int();
    parsed.areas.push(area);
  }
  parsed.entrances = [];
  for (let n = int(), i = 0; i < n; ++i) parsed.entrances.push(polygon());
  parsed.cameraInside = int();
  parsed.exclusions = [];
  for (let n = int(), i = 0; i < n; ++i) parsed.exclusions.push(polygon());
  parsed.thresholds = [num(), num(), num(), num()];
  return parsed;
}

// Six significant digits, as the application writes its numbers.
const fmt = (value) => String(Number(Number(value).toPrecision(6)));

function serializeConfig(c) {
  const polygon = (p) => (p.active ? 1 : 0) + ' ' + p.points.length + ' ' +
      p.points.map(([x, y]) => fmt(x) + ' ' + fmt(y) + ' ').join('');
  const lines = [c.version, c.language, c.controlPoints, c.areas.length];
  c.areas.forEach((a) => lines.push(polygon(a) + a.seconds + ' '));
  lines.push(c.entrances.length);
  c.entrances.forEach((e) => lines.push(polygon(e)));
  lines.push(c.cameraInside, c.exclusions.length);
  c.exclusions.forEach((e) => lines.push(polygon(e)));
  lines.push(c.thresholds.map(fmt).join(' '));
  return lines.join('\n') + '\n';
}

function say(text, ok) {
  const message = $('message');
  message.textContent = text;
  message.className = ok ? 'ok' : 'error';
}

async function loadConfig() {
  const answer = await fetch(api + 'getConfig', { cache: 'no-store' });
  config = parseConfig(await answer.text());
  $('language').value = config.language;
  showArea();
}

async function storeConfig(what) {
  const answer = await fetch(api + 'setConfig', { method: 'POST', body: serializeConfig(config) });
  const text = (await answer.text()).trim();
  if (text === 'OK') {
    say(what + ' saved', true);
  } else {
    say(text, false);
  }
  await loadConfig();
}

function chosenArea() {
  return config.areas[Number($('areaChoice').value)];
}

// The chosen area's switch, threshold and corners in the form and on the picture.
function showArea() {
  if (!config) return;
  const area = chosenArea();
  $('areaActive').checked = area.active;
  $('areaSeconds').value = area.seconds;
  const inputs = $('cornerInputs');
  inputs.textContent = '';
  area.points.forEach(([x, y], i) => {
    const row = document.createElement('div');
    row.innerHTML = `Corner ${i + 1}: x <input type="number" step="0.001" min="0" max="1"
        id="corner${i}x"> y <input type="number" step="0.001" min="0" max="1" id="corner${i}y">`;
    inputs.appendChild(row);
    $(`corner${i}x`).value = fmt(x);
    $(`corner${i}y`).value = fmt(y);
    for (const axis of ['x', 'y']) {
      $(`corner${i}${axis}`).addEventListener('input', readCorners);
    }
  });
  drawCorners();
}

function readCorners() {
  const area = chosenArea();
  area.points = area.points.map((_, i) => [Number($(`corner${i}x`).value),
                                           Number($(`corner${i}y`).value)]);
  drawCorners();
}

function drawCorners() {
  const svg = $('corners');
  const area = chosenArea();
  const ns = 'http://www.w3.org/2000/svg';
  svg.textContent = '';
  if (area.points.length === 0) return;
  const shape = document.createElementNS(ns, 'polygon');
  shape.setAttribute('points', area.points.map(([x, y]) => x + ',' + y).join(' '));
  svg.appendChild(shape);
  area.points.forEach(([x, y], i) => {
    const handle = document.createElementNS(ns, 'circle');
    handle.setAttribute('cx', x);
    handle.setAttribute('cy', y);
    handle.setAttribute('r', 0.012);
    handle.addEventListener('pointerdown', (event) => {
      dragging = i;
      svg.setPointerCapture(event.pointerId);
    });
    svg.appendChild(handle);
  });
}

function dragTo(event) {
  if (dragging < 0) return;
  const box = $('corners').getBoundingClientRect();
  const clamp = (v) => Math.min(1, Math.max(0, v));
  const x = clamp((event.clientX - box.left) / box.width);
  const y = clamp((event.clientY - box.top) / box.height);
  chosenArea().points[dragging] = [x, y];
  $(`corner${dragging}x`).value = fmt(x);
  $(`corner${dragging}y`).value = fmt(y);
  drawCorners();
}

function row(cells) {
  const tr = document.createElement('tr');
  for (const cell of cells) {
    const td = document.createElement('td');
    td.textContent = cell;
    tr.appendChild(td);
  }
  return tr;
}

async function refresh() {
  try {
    const answer = await fetch(api + 'status', { cache: 'no-store' });
    const status = JSON.parse(await answer.text());
    for (const key of ['peopleSeen', 'inView', 'entries', 'exits', 'peakInView', 'frame']) {
      $(key).textContent = status[key];
    }
    $('fps').textContent = (status.fps ?? 0).toFixed(1);
    $('calibration').textContent = status.calibration.status +
        (status.calibration.walkingSpeed ? ` (${status.calibration.walkingSpeed.toFixed(2)} m/s)` : '');
    const areas = $('areas').tBodies[0];
    areas.textContent = '';
    status.areas.filter((a) => a.active).forEach((a) => areas.appendChild(
        row([a.index, a.inside, a.arrivals, a.dwellSeconds.toFixed(1)])));
    const people = $('people').tBodies[0];
    people.textContent = '';
    status.people.forEach((p) => people.appendChild(row([
      '#' + p.id, p.area < 0 ? '–' : p.area, p.dwellSeconds.toFixed(1),
      p.floor ? p.floor.x.toFixed(1) + ', ' + p.floor.y.toFixed(1) : '–'])));
    $('state').textContent = status.running ? 'live' : 'stopped';
    $('state').className = 'state ' + (status.running ? 'live' : 'stopped');
    document.body.dataset.configVersion = status.configVersion;
    if (status.snapshot.frame !== shownSnapshot) {
      shownSnapshot = status.snapshot.frame;
      $('snapshot').src = status.snapshot.file + '?frame=' + shownSnapshot;
    }
  } catch (error) {
    $('state').textContent = 'no answer: ' + error.message;
    $('state').className = 'state';
  }
}

function start() {
  const select = $('language');
  for (const code of languages) {
    const option = document.createElement('option');
    option.value = code;
    option.textContent = code;
    select.appendChild(option);
  }
  select.addEventListener('change', () => {
    config.language = select.value;
    storeConfig('Language');
  });
  $('areaChoice').addEventListener('change', showArea);
  $('areaActive').addEventListener('change', () => { chosenArea().active = $('areaActive').checked; });
  $('areaSeconds').addEventListener('input', () => {
    chosenArea().seconds = Math.max(0, Math.round(Number($('areaSeconds').value)));
  });
  $('saveArea').addEventListener('click', () => storeConfig('Area ' + $('areaChoice').value));
  const svg = $('corners');
  svg.addEventListener('pointermove', dragTo);
  svg.addEventListener('pointerup', () => { dragging = -1; });
  loadConfig().catch((error) => say('cannot read the settings: ' + error.message, false));
  refresh();
  setInterval(refresh, 1000);
}

start();
