// The page's audio and video, driven as a person would with the player's own controls: a
// function of the action and its value that answers { text } (how it is afterwards) or
// { error }. The main element is the biggest one playing, else the first on the page.
(async (action, value) => {
  const all = [];
  const collect = (root) => {
    for (const element of root.querySelectorAll('video, audio')) all.push(element);
    for (const element of root.querySelectorAll('*')) if (element.shadowRoot) collect(element.shadowRoot);
  };
  collect(document);
  for (const frame of document.querySelectorAll('iframe, frame')) {
    try { if (frame.contentDocument) collect(frame.contentDocument); } catch (e) { /* another origin's */ }
  }
  if (!all.length) return { none: true };
  const area = (element) => { const box = element.getBoundingClientRect(); return box.width * box.height; };
  const playing = all.filter((element) => !element.paused && !element.ended);
  const media = playing.length ? playing.sort((a, b) => area(b) - area(a))[0] : all[0];

  const until = (event, most) => new Promise((resolve) => {
    const timer = setTimeout(resolve, most);
    media.addEventListener(event, () => { clearTimeout(timer); resolve(); }, { once: true });
  });
  if (media.readyState === 0 && (media.currentSrc || media.src || media.querySelector('source'))) {
    if (media.preload === 'none') media.load();
    await until('loadedmetadata', 3000);
  }
  const number = (what) => {
    const n = typeof value === 'number' ? value : typeof value === 'string' && value.trim() !== '' ? Number(value) : NaN;
    if (!Number.isFinite(n)) throw new Error(action + ' takes a value: ' + what);
    return n;
  };
  const seekTo = async (seconds) => {
    if (media.seekable.length === 0)
      throw new Error('this ' + media.localName + ' can\'t be moved in: its server sends it only from the start');
    const end = Number.isFinite(media.duration) ? media.duration : Infinity;
    const target = Math.min(Math.max(0, seconds), end);
    media.currentTime = target;
    if (media.seeking) await until('seeked', 3000);
    if (Math.abs(media.currentTime - target) > 1)
      throw new Error('it stayed at ' + Math.floor(media.currentTime) + ' s: its server may send it only from the start');
  };
  // The site's own next and previous: the buttons a person would press.
  const press = (words) => {
    const named = (element) => [element.getAttribute('aria-label'), element.getAttribute('title'),
      element.textContent].map((text) => (text || '').trim().toLowerCase()).join(' ');
    for (const element of document.querySelectorAll('button, [role=button], a')) {
      const name = named(element);
      if (words.some((word) => new RegExp('(^|\\W)' + word + '(\\W|$)').test(name))) {
        element.click();
        return true;
      }
    }
    return false;
  };
  try {
    switch (action) {
      case '': case 'state': break;
      case 'play': await media.play(); break;
      case 'pause': media.pause(); break;
      case 'toggle': if (media.paused || media.ended) await media.play(); else media.pause(); break;
      case 'seek': await seekTo(number('seconds from the start')); break;
      case 'skip': await seekTo(media.currentTime + number('seconds, back if negative')); break;
      case 'volume': {
        const volume = number('from 0 to 1');
        if (volume < 0 || volume > 1) throw new Error('volume takes a value from 0 to 1');
        media.volume = volume;
        if (volume > 0) media.muted = false;
        break;
      }
      case 'mute': media.muted = true; break;
      case 'unmute': media.muted = false; break;
      case 'rate': {
        const rate = number('the speed, 1 is normal');
        if (rate <= 0 || rate > 16) throw new Error('rate takes a speed above 0 and up to 16 (1 is normal)');
        media.playbackRate = rate;
        break;
      }
      case 'next': if (!press(['next', 'next track', 'skip'])) throw new Error('the page has no next-track button to press'); break;
      case 'previous': if (!press(['previous', 'prev', 'previous track'])) throw new Error('the page has no previous-track button to press'); break;
      case 'fullscreen': if (document.fullscreenElement !== media) await media.requestFullscreen(); break;
      case 'exit_fullscreen': if (document.fullscreenElement) await document.exitFullscreen(); break;
      case 'pip':
        if (media.localName !== 'video') throw new Error('picture in picture is for video, and this is audio');
        if (document.pictureInPictureElement !== media) await media.requestPictureInPicture();
        break;
      case 'exit_pip': if (document.pictureInPictureElement) await document.exitPictureInPicture(); break;
      default:
        throw new Error('no media action ' + JSON.stringify(action) + ': state, play, pause, toggle, seek, skip, ' +
          'volume, mute, unmute, rate, next, previous, fullscreen, exit_fullscreen, pip or exit_pip');
    }
  } catch (error) {
    return { error: (error && error.message) || String(error) };
  }
  if (action === 'play' || action === 'toggle' || action === 'next' || action === 'previous')
    await new Promise((resolve) => setTimeout(resolve, 100));

  const clock = (seconds) => {
    if (!Number.isFinite(seconds)) return 'live';
    const whole = Math.floor(seconds);
    const hours = Math.floor(whole / 3600), minutes = Math.floor(whole / 60) % 60, rest = whole % 60;
    return (hours ? hours + ':' + String(minutes).padStart(2, '0') : minutes) + ':' + String(rest).padStart(2, '0');
  };
  const source = media.currentSrc || media.src || '';
  const name = (media.getAttribute('aria-label') || media.getAttribute('title') || '').trim() ||
    (/^(data|blob):/.test(source) ? '' : decodeURIComponent(source.split(/[?#]/)[0].split('/').pop() || ''));
  const state = media.ended ? 'ended' : media.paused ? 'paused' : 'playing';
  let text = media.localName + (name ? ' ' + JSON.stringify(name) : '') + ': ' + state + ' at ' +
    clock(media.currentTime) + ' of ' + clock(media.duration) + ', volume ' + Math.round(media.volume * 100) + '%' +
    (media.muted ? ', muted' : '') + ', rate ' + media.playbackRate + 'x';
  if (document.fullscreenElement === media) text += ', fullscreen';
  if (document.pictureInPictureElement === media) text += ', picture in picture';
  if (media.error) text += ' (it can\'t play: ' + (media.error.message || 'error ' + media.error.code) + ')';
  if (all.length > 1) text += ' (the ' + (playing.length ? 'biggest playing' : 'first') + ' of ' + all.length + ' on the page)';
  return { text };
})
