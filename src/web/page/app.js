// The page of `quillmar serve`: the search with the recorder's live counters on "/", and a leg's
// waveform, player and inspect report on "/legs/UUID". Everything comes from this server's API.
'use strict';

const PAGE_SIZE = 50;
const STATUS_PERIOD_MS = 5000;
// The export's sample rate: the API's sample counts are on its timeline.
const RATE = 8000;
const SIDES = ['inbound', 'outbound'];
const METRICS = {
  callsOpen: 'quillmarwriter_sessions',
  datagrams: 'quillmarwriter_packet_queue_passed_elements_total',
  kernelDrops: 'quillmarwriter_kernel_drops_total',
  droppedBytes: 'quillmarwriter_session_media_dropped_bytes_total',
};

const $ = (id) => document.getElementById(id);

// The API's answer; a session that has ended sends the browser to sign in again. The header tells
// the server that the page asks, so that it does not open the browser's own password dialog.
async function api(path) {
  const response = await fetch(path, { headers: { 'X-Requested-With': 'quillmar-page' } });
  if (response.status === 401) {
    window.location.assign('/signin?next=' + encodeURIComponent(window.location.pathname));
    throw new Error('signed out');
  }
  const body = await response.json();
  if (!response.ok) {
    const error = new Error(body.error || response.statusText);
    error.status = response.status;
    error.body = body;
    throw error;
  }
  return body;
}

function cell(row, text, className) {
  const td = document.createElement('td');
  td.textContent = text;
  if (className) td.className = className;
  row.appendChild(td);
  return td;
}

function localTime(us) {
  return new Date(us / 1000).toLocaleString(undefined, { hour12: false });
}

function seconds(us) {
  return (us / 1e6).toFixed(3) + ' s';
}

function sideText(side) {
  return side.frames + ' / ' + side.lost_packets;
}

// ---- the search page ----

let offset = 0;
// Searches may overlap (the first one on load, then the user's): only the latest is shown.
let searchNumber = 0;

function searchQuery() {
  const params = new URLSearchParams();
  for (const name of ['call_id', 'uuid']) {
    const value = $(name).value.trim();
    if (value) params.set(name, value);
  }
  // The inputs hold UTC times; the API takes them with their zone.
  for (const name of ['from', 'to']) {
    const value = $(name).value;
    if (value) params.set(name, (value.length === 16 ? value + ':00' : value) + 'Z');
  }
  if ($('include_removed').checked) params.set('include_removed', '1');
  return params;
}

function showLegs(legs) {
  const body = $('results').tBodies[0];
  body.replaceChildren();
  for (const leg of legs.slice(0, PAGE_SIZE)) {
    const row = document.createElement('tr');
    row.dataset.uuid = leg.uuid;
    cell(row, leg.start_utc.replace('T', ' ').replace(/\.\d+Z$/, ' UTC'));
    cell(row, localTime(leg.start_us));
    cell(row, seconds(leg.last_packet_us - leg.start_us), 'number');
    cell(row, leg.call_id);
    const link = document.createElement('a');
    link.href = '/legs/' + leg.uuid;
    link.textContent = leg.leg + ' ' + leg.uuid.slice(0, 8);
    link.title = leg.uuid;
    cell(row, '').appendChild(link);
    cell(row, sideText(leg.sides[0]), 'number');
    cell(row, sideText(leg.sides[1]), 'number');
    cell(row, leg.state);
    body.appendChild(row);
  }
  $('previous').disabled = offset === 0;
  // One more than a page was asked for: its presence says there is a next page.
  $('next').disabled = legs.length <= PAGE_SIZE;
  const shown = Math.min(legs.length, PAGE_SIZE);
  $('page-info').textContent =
    shown === 0 ? 'no legs' : 'legs ' + (offset + 1) + '–' + (offset + shown);
}

async function search() {
  const params = searchQuery();
  history.replaceState(null, '', '/?' + params.toString() + (offset ? '&offset=' + offset : ''));
  params.set('limit', PAGE_SIZE + 1);
  params.set('offset', offset);
  $('search-error').hidden = true;
  const number = ++searchNumber;
  try {
    const legs = await api('/api/legs?' + params.toString());
    if (number === searchNumber) showLegs(legs);
  } catch (error) {
    if (number !== searchNumber) return;
    $('search-error').textContent = error.message;
    $('search-error').hidden = false;
  }
}

let lastDatagrams = null;

async function refreshStatus() {
  let metrics;
  try {
    metrics = await api('/api/status');
  } catch (error) {
    $('status-note').textContent = error.status === 404 ? 'no metrics file' : error.message;
    return;
  }
  const now = performance.now();
  const show = (id, name) => {
    $(id).textContent = name in metrics ? metrics[name].toLocaleString() : '–';
  };
  show('calls-open', METRICS.callsOpen);
  show('kernel-drops', METRICS.kernelDrops);
  show('dropped-bytes', METRICS.droppedBytes);
  const datagrams = metrics[METRICS.datagrams];
  if (lastDatagrams && datagrams !== undefined && now > lastDatagrams.at) {
    const rate = (datagrams - lastDatagrams.count) / ((now - lastDatagrams.at) / 1000);
    $('datagram-rate').textContent = Math.max(0, Math.round(rate)).toLocaleString();
  }
  lastDatagrams = datagrams === undefined ? null : { count: datagrams, at: now };
  $('status-note').textContent = 'read ' + new Date().toLocaleTimeString(undefined, { hour12: false });
}

function startSearchPage() {
  $('search-view').hidden = false;
  $('zone').textContent = Intl.DateTimeFormat().resolvedOptions().timeZone || 'local';
  const wanted = new URLSearchParams(window.location.search);
  for (const name of ['call_id', 'uuid']) $(name).value = wanted.get(name) || '';
  for (const name of ['from', 'to']) {
    const value = wanted.get(name);
    if (value) $(name).value = value.replace(/Z$/, '');
  }
  $('include_removed').checked = wanted.get('include_removed') === '1';
  offset = Math.max(0, parseInt(wanted.get('offset') || '0', 10) || 0);
  $('search').addEventListener('submit', (event) => {
    event.preventDefault();
    offset = 0;
    search();
  });
  $('previous').addEventListener('click', () => {
    offset = Math.max(0, offset - PAGE_SIZE);
    search();
  });
  $('next').addEventListener('click', () => {
    offset += PAGE_SIZE;
    search();
  });
  search();
  refreshStatus();
  setInterval(refreshStatus, STATUS_PERIOD_MS);
}

// ---- a leg's page ----

function summaryLine(list, name, value) {
  const dt = document.createElement('dt');
  dt.textContent = name;
  const dd = document.createElement('dd');
  dd.textContent = value;
  list.append(dt, dd);
}

function showSummary(leg, inspect) {
  const list = $('summary');
  summaryLine(list, 'Call id', leg.call_id);
  summaryLine(list, 'Leg', leg.leg);
  summaryLine(list, 'Start', leg.start_utc + ' (' + localTime(leg.start_us) + ' here)');
  summaryLine(list, 'Duration', seconds(leg.last_packet_us - leg.start_us));
  summaryLine(list, 'Closed by', leg.closed_by);
  for (const [index, side] of (inspect.sides || []).entries()) {
    summaryLine(list, SIDES[index],
      side.frames + ' frames, ' + leg.sides[index].lost_packets + ' packets lost, ' + side.gaps +
      ' gaps (' + (side.missing_samples * 1000 / RATE) + ' ms missing)');
  }
  summaryLine(list, 'Recorder', leg.recorder.host + ':' + leg.recorder.port);
  summaryLine(list, 'State', leg.state);
}

// Min and max of each column, in -1..1, as the waveform draws them.
function channelPeaks(side) {
  const values = new Float32Array(side.columns.length * 2);
  side.columns.forEach((column, i) => {
    values[2 * i] = column.max / 32768;
    values[2 * i + 1] = column.min / 32768;
  });
  return values;
}

function showGaps(regions, peaks) {
  const body = $('gaps').tBodies[0];
  for (const side of peaks.sides) {
    side.gaps.forEach((gap, i) => {
      const ms = gap.samples * 1000 / RATE;
      const region = regions.addRegion({
        id: 'gap-' + side.side + '-' + i,
        start: gap.start_sample / RATE,
        end: (gap.start_sample + gap.samples) / RATE,
        channelIdx: side.side,
        color: 'rgba(214, 48, 49, 0.35)',
        drag: false,
        resize: false,
      });
      const text = SIDES[side.side] + ': ' + ms + ' ms missing at ' +
        (gap.start_sample / RATE).toFixed(3) + ' s';
      region.element.title = text;
      region.element.dataset.side = side.side;
      region.element.dataset.startSample = gap.start_sample;
      region.element.dataset.samples = gap.samples;
      region.element.style.minWidth = '2px';
      const row = document.createElement('tr');
      cell(row, SIDES[side.side]);
      cell(row, (gap.start_sample / RATE).toFixed(3) + ' s', 'number');
      cell(row, ms + ' ms', 'number');
      row.title = text;
      body.appendChild(row);
    });
  }
}

async function showAudio(uuid) {
  const base = '/api/legs/' + uuid;
  const width = Math.max(200, Math.min(4000, Math.round($('waveform').clientWidth || 1000)));
  const peaks = await api(base + '/peaks?width=' + width);
  const duration = peaks.samples / RATE;
  $('duration').textContent = duration.toFixed(3) + ' s';
  $('download-wav').href = base + '/audio.wav?download=1';
  $('download-wav').setAttribute('download', uuid + '.wav');
  $('download-flac').href = base + '/audio.flac?download=1';
  $('download-flac').setAttribute('download', uuid + '.flac');
  // The audio is fetched when played, not when the page opens: a view is not a playback, and the
  // access log tells them apart by the request for the audio's first byte.
  const media = new Audio();
  media.preload = 'none';
  const wavesurfer = WaveSurfer.create({
    container: '#waveform',
    media: media,
    url: base + '/audio.wav',
    peaks: [channelPeaks(peaks.sides[0]), channelPeaks(peaks.sides[1])],
    duration: duration,
    height: 90,
    normalize: false,
    splitChannels: [
      { waveColor: '#2f6fd0', progressColor: '#173d78' },
      { waveColor: '#2f9a6a', progressColor: '#1b5c3f' },
    ],
    cursorColor: '#d63031',
  });
  const regions = wavesurfer.registerPlugin(WaveSurfer.Regions.create());
  // Regions are placed on the duration, which the waveform knows once it has its peaks.
  wavesurfer.once('decode', () => {
    showGaps(regions, peaks);
    document.body.dataset.waveform = 'ready';
  });
  const play = $('play');
  play.disabled = false;
  play.addEventListener('click', () => wavesurfer.playPause());
  wavesurfer.on('play', () => { play.textContent = 'Pause'; });
  wavesurfer.on('pause', () => { play.textContent = 'Play'; });
  wavesurfer.on('timeupdate', (time) => { $('time').textContent = time.toFixed(3) + ' s'; });
}

async function startLegPage(uuid) {
  $('leg-view').hidden = false;
  $('leg-uuid').textContent = uuid;
  let shown;
  try {
    shown = await api('/api/legs/' + uuid);
  } catch (error) {
    $('leg-error').textContent = error.message +
      (error.body && error.body.removed_at ? ' at ' + error.body.removed_at : '');
    $('leg-error').hidden = false;
    return;
  }
  showSummary(shown.leg, shown.inspect);
  $('inspect').textContent = JSON.stringify(shown.inspect, null, 2);
  $('inspect-section').hidden = false;
  $('audio-section').hidden = false;
  try {
    await showAudio(uuid);
  } catch (error) {
    $('leg-error').textContent = error.message;
    $('leg-error').hidden = false;
  }
}

const legPath = window.location.pathname.match(/^\/legs\/([0-9a-f-]{36})$/);
if (legPath) {
  startLegPage(legPath[1]);
} else {
  startSearchPage();
}
