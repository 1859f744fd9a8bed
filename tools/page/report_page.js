'use strict';
(() => {
  // A link to a stack opens it.
  const openTarget = () => {
    const target = /^#thread-\d+$/.test(location.hash) && document.querySelector(location.hash);
    if (!target) return;
    target.open = true;
    target.querySelector('summary').focus();
  };
  window.addEventListener('hashchange', openTarget);
  openTarget();
})();
(() => {
  const canvas = document.getElementById('canvas');
  if (!canvas) return;
  const data = JSON.parse(document.getElementById('data').textContent);
  const tip = document.getElementById('tip');
  const draw = canvas.getContext('2d');
  const rest = Math.max(data.to - data.from, 1) * 0.01;
  const whole = { from: data.from - rest, to: data.to + rest };
  const kMinSpan = 20;  // µs
  const cpus = data.tracks.filter((track) => track.kind === 'cpu' && track.items.length);
  const recordedFrom = Math.min(...cpus.map((track) => track.items[0][0]));  // µs; switches never cease for long
  const heights = { state: 26, wakeup: 14, signpost: 18, cpu: data.tracks.length > 20 ? 12 : 22 };
  const kAxis = 34, kGap = 5, kColumn = 2;  // pixels
  const view = { ...whole };
  let colors = {}, width = 0, left = 0, queued = false;

  // ---- names and colours: the busiest six of other threads get one each -------------------------------------------

  const palette = new Map();
  const byTime = data.labels.filter((label) => label[2] === 'other').sort((a, b) => b[3] - a[3]);
  for (const label of byTime) {
    if (palette.size < 6 && !palette.has(label[0])) palette.set(label[0], 'p' + palette.size);
  }
  const stateOf = (text) => text.split(' ')[0];
  const kStates = ['running', 'runnable', 'uninterruptible', 'sleeping', 'stopped', 'unknown'];
  const kOrder = [...kStates, 'own', 'p0', 'p1', 'p2', 'p3', 'p4', 'p5', 'other'];  // in a legend; from the bottom

  function colorName(track, label) {
    if (track.kind === 'state') return kStates.includes(stateOf(label[0])) ? stateOf(label[0]) : 'unknown';
    if (track.kind !== 'cpu') return 'dim';
    if (label[2] === 'hung') return 'running';
    return label[2] === 'own' ? 'own' : palette.get(label[0]) || 'other';
  }

  // Of "#rrggbb", as contrasts are reckoned: below .18 white can be read on it best, above it black.
  function luminance(color) {
    const parts = [1, 3, 5].map((at) => parseInt(color.slice(at, at + 2), 16) / 255);
    const [red, green, blue] = parts.map((part) => part <= .04045 ? part / 12.92 : ((part + .055) / 1.055) ** 2.4);
    return .2126 * red + .7152 * green + .0722 * blue;
  }

  function readColors() {
    const style = getComputedStyle(document.documentElement);
    colors = {};
    for (const name of ['ink', 'dim', 'line', 'soft', 'hang', 'edge', ...kOrder]) {
      colors[name] = style.getPropertyValue('--' + name).trim();
    }
    for (const name of kOrder) colors['on ' + name] = luminance(colors[name]) > .18 ? '#000000' : '#ffffff';
  }

  function timeText(us, step = Math.abs(us)) {
    if (us === 0) return '0';
    if (step >= 1e5) return +(us / 1e6).toFixed(step >= 1e6 ? 2 : 3) + ' s';
    if (step >= 100) return +(us / 1e3).toFixed(2) + ' ms';
    return Math.round(us) + ' µs';
  }

  // ---- drawing ------------------------------------------------------------------------------------------------------

  const xOf = (us) => left + (us - view.from) / (view.to - view.from) * (width - left);
  const usOf = (x) => view.from + (x - left) / (width - left) * (view.to - view.from);

  function layOut() {
    let y = kAxis;
    for (const track of data.tracks) {
      track.y = y;
      track.height = heights[track.kind];
      y += track.height + kGap;
    }
    width = canvas.clientWidth;
    left = width < 560 ? 60 : 104;
    const scale = window.devicePixelRatio || 1;
    canvas.style.height = y + 'px';
    canvas.width = Math.round(width * scale);
    canvas.height = Math.round(y * scale);
    draw.setTransform(scale, 0, 0, scale, 0, 0);
    return y;
  }

  function drawAxis(bottom) {
    const span = view.to - view.from;
    const rough = span / Math.max(2, (width - left) / 90);
    const power = 10 ** Math.floor(Math.log10(rough));
    const step = [1, 2, 5, 10].find((times) => times * power >= rough) * power;
    draw.textAlign = 'center';
    for (let us = Math.ceil(view.from / step) * step; us <= view.to; us += step) {
      const x = xOf(us);
      draw.fillStyle = colors.line;
      draw.fillRect(Math.round(x), kAxis - 6, 1, bottom);
      draw.fillStyle = colors.dim;
      if (x >= left && x < width - 20) draw.fillText(timeText(Math.round(us), step), x, 20);
    }
  }

  function drawHang(bottom) {
    const from = Math.max(xOf(0), left), to = Math.min(xOf(data.hang), width);
    if (to <= left || from >= width) return;
    draw.fillStyle = colors.hang;
    draw.fillRect(from, kAxis - 6, to - from, bottom);
    draw.fillStyle = colors.edge;
    draw.fillRect(from, kAxis - 8, to - from, 3);
  }

  function drawLook(bottom) {
    if (data.looked === undefined || xOf(data.looked) < left) return;
    draw.strokeStyle = colors.ink;
    draw.setLineDash([3, 3]);
    draw.beginPath();
    draw.moveTo(xOf(data.looked), kAxis - 6);
    draw.lineTo(xOf(data.looked), bottom);
    draw.stroke();
    draw.setLineDash([]);
  }

  function drawMark(track, start, text) {
    const x = xOf(start);
    if (x < left || x > width) return;
    draw.fillStyle = colors.dim;
    draw.fillRect(x, track.y, 1.5, track.height);
    if (track.kind === 'signpost') draw.fillText(text, x + 5, track.y + track.height / 2);
  }

  function drawSlice(track, color, text, from, to, share) {
    const x = Math.floor(Math.max(from, left)), room = Math.ceil(Math.min(to, width)) - x;
    const height = Math.max(track.height * share, 2);
    draw.fillStyle = colors[color];
    draw.fillRect(x, track.y + track.height - height, room, height);
    if (room < 34 || track.height < 16 || share < 1) return;
    const letters = Math.floor((room - 10) / 6.6);
    draw.fillStyle = colors['on ' + color];
    draw.fillText(text.length > letters ? text.slice(0, letters - 1) + '…' : text, x + 6, track.y + track.height / 2 + .5);
  }

  function addToColumns(columns, color, from, to, busy) {
    for (let column = Math.max(Math.floor(from), 0); column <= to; ++column) {
      const share = to > from ? (Math.min(to, column + 1) - Math.max(from, column)) / (to - from) : 1;
      if (!columns.has(column)) columns.set(column, {});
      columns.get(column)[color] = (columns.get(column)[color] || 0) + busy * share;
    }
  }

  // What is too narrow to be told apart: each column is filled to the share of its time in which something ran, and
  // split by what that was.
  function drawColumns(track, columns) {
    for (const [column, times] of columns) {
      let bottom = track.y + track.height;
      const perUs = track.height / ((view.to - view.from) / (width - left) * kColumn);
      for (const color of kOrder) {
        if (!times[color]) continue;
        const height = Math.min(times[color] * perUs, bottom - track.y);
        draw.fillStyle = colors[color];
        draw.fillRect(left + column * kColumn, bottom - height, kColumn, height);
        bottom -= height;
      }
    }
  }

  // Before the recording begins a CPU is not idle: nothing is known of it.
  function drawUnrecorded(track) {
    if (track.kind !== 'cpu' || xOf(recordedFrom) <= left || xOf(data.from) >= width) return;
    drawSlice(track, 'unknown', 'not recorded', xOf(data.from), xOf(recordedFrom), 1);
  }

  function drawTrack(track) {
    drawUnrecorded(track);
    const columns = new Map();
    for (const [start, duration, labelIndex, count, busy = duration] of track.items) {
      const from = xOf(start), to = xOf(start + duration);
      if (to < left || from > width) continue;
      const label = data.labels[labelIndex], color = colorName(track, label);
      if (track.kind === 'wakeup' || track.kind === 'signpost') {
        drawMark(track, start, label[0]);
      } else if (to - from >= 2 * kColumn) {
        drawSlice(track, color, label[0], from, to, count ? Math.min(busy / duration, 1) : 1);
      } else if (track.kind === 'state') {
        draw.fillStyle = colors[color];
        draw.fillRect(Math.max(from, left), track.y, Math.max(to - from, .7), track.height);
      } else {
        addToColumns(columns, color, (from - left) / kColumn, (to - left) / kColumn, busy);
      }
    }
    drawColumns(track, columns);
  }

  function paint() {
    queued = false;
    const bottom = layOut();
    draw.clearRect(0, 0, width, bottom);
    draw.font = '12px system-ui, sans-serif';
    draw.textBaseline = 'middle';
    for (const track of data.tracks) {
      draw.fillStyle = colors.soft;
      draw.fillRect(left, track.y, width - left, track.height);
    }
    drawHang(bottom);
    drawAxis(bottom);
    draw.textAlign = 'left';
    for (const track of data.tracks) {
      drawTrack(track);
      draw.fillStyle = colors.dim;
      draw.fillText(track.name, 0, track.y + track.height / 2, left - 8);
    }
    drawLook(bottom);
  }

  function repaint() {
    if (!queued) requestAnimationFrame(paint);
    queued = true;
  }

  // ---- moving about -------------------------------------------------------------------------------------------------

  function show(from, to) {
    const span = Math.min(Math.max(to - from, kMinSpan), whole.to - whole.from);
    view.from = Math.min(Math.max(from, whole.from), whole.to - span);
    view.to = view.from + span;
    tip.hidden = true;
    repaint();
  }

  function zoom(times, around = (view.from + view.to) / 2) {
    show(around - (around - view.from) * times, around + (view.to - around) * times);
  }

  function pan(share) {
    const by = (view.to - view.from) * share;
    show(view.from + by, view.to + by);
  }

  const showAll = () => show(whole.from, whole.to);
  const showHang = () => show(-data.hang * .02, data.hang * 1.02);
  const actions = { in: () => zoom(.5), out: () => zoom(2), hang: showHang, all: showAll };
  for (const [id, action] of Object.entries(actions)) {
    document.getElementById(id)?.addEventListener('click', action);
  }

  canvas.addEventListener('keydown', (event) => {
    const keys = { '+': actions.in, '=': actions.in, '-': actions.out, '0': showAll,
      ArrowLeft: () => pan(-.2), ArrowRight: () => pan(.2) };
    if (!keys[event.key] || event.ctrlKey || event.metaKey) return;
    keys[event.key]();
    event.preventDefault();
  });

  canvas.addEventListener('wheel', (event) => {
    if (event.ctrlKey || event.metaKey) zoom(Math.exp(event.deltaY * .003), usOf(event.offsetX));
    else if (event.deltaX !== 0 || event.shiftKey) pan((event.deltaX || event.deltaY) / width);
    else return;
    event.preventDefault();
  }, { passive: false });

  canvas.addEventListener('dblclick', (event) => zoom(.25, usOf(event.offsetX)));
  canvas.addEventListener('pointerdown', (event) => canvas.setPointerCapture(event.pointerId));
  canvas.addEventListener('pointermove', (event) => {
    if (event.buttons) pan(-event.movementX / (width - left));
    else point(event.offsetX, event.offsetY);
  });
  canvas.addEventListener('pointerleave', () => { tip.hidden = true; });

  // ---- what the pointer is on ---------------------------------------------------------------------------------------

  function itemAt(track, x) {
    const near = (view.to - view.from) / (width - left) * 3, us = usOf(x);
    let best = null, distance = near;
    for (const item of track.items) {
      const away = Math.max(item[0] - us, us - item[0] - item[1], 0);
      if (away < distance || (away === 0 && !best)) [best, distance] = [item, away];
      if (item[0] - us > near) break;
    }
    return best;
  }

  function point(x, y) {
    const track = data.tracks.find((candidate) => y >= candidate.y && y < candidate.y + candidate.height);
    const item = track && x >= left ? itemAt(track, x) : null;
    tip.hidden = !item;
    if (!item) return;
    const [start, duration, labelIndex, count, busy] = item;
    const [text, tid] = data.labels[labelIndex];
    const lines = [tid ? `${text} (${tid})` : text];
    if (count) lines[0] = `${count} × , mostly ${lines[0]}`;
    if (duration > 0) lines.push(`for ${timeText(duration)}` + (count ? `, busy for ${timeText(busy)}` : ''));
    lines.push(start < 0 ? `${timeText(-start)} before it began` : `${timeText(start)} into it`);
    tip.textContent = lines.join('\n');
    tip.style.left = Math.max(Math.min(x + 12, width - tip.offsetWidth), 0) + 'px';
    tip.style.top = track.y + track.height + 6 + 'px';
  }

  // ---- the legend ---------------------------------------------------------------------------------------------------

  function fillLegend() {
    const entries = new Map();
    for (const track of data.tracks) {
      for (const item of track.items) {
        const label = data.labels[item[2]];
        const color = colorName(track, label);
        if (track.kind === 'state' && color !== 'unknown') entries.set(color, color);
        if (track.kind === 'cpu' && label[2] === 'other' && palette.has(label[0])) entries.set(color, label[0]);
        if (track.kind === 'cpu' && label[2] === 'own') entries.set('own', 'same process');
        if (track.kind === 'cpu' && label[2] === 'hung') entries.set('running', 'running: the hung thread');
        if (track.kind === 'cpu' && color === 'other') entries.set('other', 'others');
      }
    }
    for (const color of kOrder.filter((name) => entries.has(name))) {
      const entry = document.createElement('li');
      entry.append(document.createElement('i'), entries.get(color));
      entry.firstChild.style.background = `var(--${color})`;
      document.getElementById('legend').append(entry);
    }
  }

  readColors();
  fillLegend();
  new ResizeObserver(repaint).observe(canvas.parentElement);
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => { readColors(); repaint(); });
})();
