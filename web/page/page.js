'use strict';
// What the page shows comes from the device, also with this script: it asks whether that has changed, takes the
// new page, and sends a file in parts, so that the bar is true and a broken connection costs little.
(() => {
  const INTERVAL = 2000, PART = 4 * 1024 * 1024;
  const words = document.body.dataset;
  const find = (id) => document.getElementById(id);
  const fill = (text, values) => text.replace(/\[(\w+)\]/g, (_, name) => values[name]);
  const size = (bytes) => (bytes / 1048576).toFixed(bytes < 10485760 ? 2 : 1) + ' MiB';
  const sleep = (ms) => new Promise((done) => setTimeout(done, ms));
  let main, lost = false, sending = null;

  const say = (text) => { const line = find('line'); if (line.textContent !== text) line.textContent = text; };

  function adopt(text) {
    const page = new DOMParser().parseFromString(text, 'text/html');
    const next = page.querySelector('main');
    if (!next) return;
    const moved = next.dataset.screen !== main.dataset.screen;
    main.replaceWith(document.adoptNode(next));
    document.title = page.title;
    set_up();
    if (moved) main.querySelector('h1').focus();
  }

  async function show() {
    adopt(await (await fetch('/')).text());
  }

  async function poll() {
    for (;;) {
      await sleep(INTERVAL);
      if (sending || main.dataset.screen === 'history') continue;
      try {
        const answer = await fetch('/state', { signal: AbortSignal.timeout(10000) });
        const state = await answer.json();
        if (lost) say(words.back);
        lost = false;
        const typing = main.dataset.screen === 'login' && state.screen === 'login';
        const chosen = find('file') && find('file').files.length > 0 && state.screen === main.dataset.screen;
        if (state.stamp !== main.dataset.stamp && !typing && !chosen && !sending) await show();
      } catch {
        lost = true;
        say(words.lost);
      }
    }
  }

  const post = (path, fields, signal) => fetch(path, {
    method: 'POST', signal, body: new URLSearchParams(fields), headers: { 'X-Token': main.dataset.token } });

  // One part; tells how far it is. Resolves with [status, answer]; rejects when the connection is lost.
  const send_part = (id, offset, blob, progress) => new Promise((done, failed) => {
    const request = new XMLHttpRequest();
    sending.request = request;
    request.open('POST', '/data?id=' + id + '&offset=' + offset);
    request.setRequestHeader('X-Token', main.dataset.token);
    request.upload.onprogress = (event) => progress(offset + event.loaded);
    request.onload = () => done([request.status, request.responseText]);
    request.onerror = request.onabort = request.ontimeout = failed;
    request.send(blob);
  });

  function show_progress(file, begun, done) {
    const seconds = (performance.now() - begun.time) / 1000;
    const speed = (done - begun.offset) / seconds;
    const left = seconds > 2 && speed > 0 ? fill(words.left, { secs: Math.ceil((file.size - done) / speed) }) : '';
    find('bar').value = 100 * done / file.size;
    find('figures').textContent = fill(words.sent, { done: size(done), size: size(file.size) }) + ' ' + left;
  }

  // Sends the file from where the device stands, as often as the connection breaks. Throws a sentence.
  async function send(file) {
    const name = file.name + '|' + file.lastModified;
    let id = '', begun = null;
    while (!sending.cancelled) {
      try {
        const answer = await post('/begin', { size: file.size, name, id });
        const told = await answer.json();
        if (!answer.ok) {
          if (answer.status === 409 && id) { await sleep(INTERVAL); continue; }
          throw { sentence: told.error };
        }
        id = told.id;
        say('');
        begun = { time: performance.now(), offset: told.offset };
        let offset = told.offset;
        while (offset < file.size && !sending.cancelled) {
          const [status, text] = await send_part(id, offset, file.slice(offset, offset + PART),
            (done) => show_progress(file, begun, Math.min(done, file.size)));
          if (status === 409) throw 0;
          const part = JSON.parse(text);
          if (status !== 200) throw { sentence: part.error };
          offset = part.offset;
          show_progress(file, begun, offset);
        }
        if (sending.cancelled) return;
        const checked = await post('/check', { id });
        if (!checked.ok) throw { sentence: (await checked.json()).error };
        return;
      } catch (problem) {
        if (problem && problem.sentence) throw problem;
        if (sending.cancelled) return;
        say(words.lost);
        await sleep(INTERVAL);
      }
    }
  }

  async function start(event) {
    event.preventDefault();
    const file = find('file').files[0], limit = Number(event.target.dataset.limit);
    if (!file) return;
    if (limit && file.size > limit) {
      say(fill(words.large, { size: size(file.size), limit: size(limit) }));
      return;
    }
    sending = { cancelled: false, request: null };
    event.target.hidden = true;
    find('going').hidden = false;
    find('cancel').focus();
    let sentence = '';
    try {
      await send(file);
      if (sending.cancelled) await post('/give-up', {});
    } catch (problem) {
      sentence = problem.sentence || words.ended;
    }
    sending = null;
    for (;;) {
      try { await show(); break; } catch { say(words.lost); await sleep(INTERVAL); }
    }
    if (sentence) say(sentence);
  }

  function set_up() {
    main = document.querySelector('main');
    const form = find('upload');
    if (!form) return;
    form.addEventListener('submit', start);
    find('cancel').addEventListener('click', () => {
      sending.cancelled = true;
      if (sending.request) sending.request.abort();
    });
  }

  set_up();
  window.addEventListener('beforeunload', (event) => { if (sending) event.preventDefault(); });
  poll();
})();
