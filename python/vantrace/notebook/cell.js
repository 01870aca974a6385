// Has a cell's flame graph answer: a click fills the width with a frame, a search marks names.
(() => {
  const box = document.querySelector('[data-vantrace="@ID@"]:not([data-answers])');
  const picture = box?.querySelector('svg');
  if (!picture) return;
  box.dataset.answers = '';

  const number = (element, attribute) => parseFloat(element.getAttribute(attribute));
  const frames = [...picture.querySelectorAll('svg')].map((element) => ({
    element,
    name: element.querySelector('text').textContent.toLowerCase(),
    row: number(element, 'y'),
    left: number(element, 'x'),
    right: number(element, 'x') + number(element, 'width'),
  }));
  const rounding = 2e-4; // of the percents in the picture

  function fillWith(chosen) {
    const scale = 100 / (chosen.right - chosen.left);
    let lowest = 0;
    for (const frame of frames) {
      const holds = frame.left <= chosen.left + rounding && frame.right >= chosen.right - rounding;
      const isAbove = frame.row < chosen.row && holds;
      const isInside =
        frame.row >= chosen.row && frame.left >= chosen.left - rounding && frame.right <= chosen.right + rounding;
      frame.element.style.display = isAbove || isInside ? '' : 'none';
      if (isAbove || isInside) lowest = Math.max(lowest, frame.row);
      frame.element.setAttribute('x', isAbove ? '0%' : `${(frame.left - chosen.left) * scale}%`);
      frame.element.setAttribute('width', isAbove ? '100%' : `${(frame.right - frame.left) * scale}%`);
    }
    picture.setAttribute('height', lowest + number(chosen.element, 'height'));
  }

  function mark(text) {
    for (const { element, name } of frames) {
      element.classList.toggle('found', text !== '' && name.includes(text.toLowerCase()));
    }
  }

  const search = document.createElement('input');
  search.type = 'search';
  search.placeholder = 'mark names with';
  search.setAttribute('aria-label', search.placeholder);
  search.addEventListener('input', () => mark(search.value));
  // The notebook has keys of its own.
  search.addEventListener('keydown', (event) => event.stopPropagation());
  const line = document.createElement('p');
  line.append(search, 'A click on a frame fills the width with it; one on the outermost shows all.');
  picture.parentElement.before(line);

  picture.addEventListener('click', (event) => {
    const element = event.target.closest('svg svg');
    if (element) fillWith(frames.find((frame) => frame.element === element));
  });
})();
