// The words of a page, in HTML and in pictures, that cannot be told from what is behind them: WCAG 2, level AA.
(() => {
  const numbers = colour => colour.match(/[\d.]+/g).map(Number);
  const luminance = ([r, g, b]) => [r, g, b].map(part => part / 255).map(part =>
    part <= 0.03928 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4).reduce((sum, part, i) => sum + part * [0.2126, 0.7152, 0.0722][i], 0);
  const ratio = (one, other) => {
    const [dark, light] = [luminance(one), luminance(other)].sort((a, b) => a - b);
    return (light + 0.05) / (dark + 0.05);
  };
  function behind(element) {
    const box = element.getBoundingClientRect();
    const svg = element.closest('svg');
    if (svg) {
      for (const area of [...svg.querySelectorAll('rect')].reverse()) {
        const place = area.getBoundingClientRect();
        const fill = getComputedStyle(area).fill;
        const covers = place.left <= box.left + 1 && place.right >= box.right - 1 && place.top <= box.top + 4 && place.bottom >= box.bottom - 4;
        if (covers && fill.startsWith('rgb') && (numbers(fill)[3] ?? 1) === 1) return numbers(fill);
      }
    }
    for (let around = element; around; around = around.parentElement) {
      const colour = numbers(getComputedStyle(around).backgroundColor);
      if ((colour[3] ?? 1) === 1) return colour;
    }
    return [255, 255, 255];
  }
  const faults = new Set();
  for (const element of document.querySelectorAll('body *')) {
    const said = [...element.childNodes].filter(node => node.nodeType === 3).map(node => node.textContent.trim()).join('');
    if (!said || !element.getClientRects().length || element.closest('.aside, script, option, title')) continue;
    const style = getComputedStyle(element);
    const colour = numbers(element.closest('svg') ? style.fill : style.color);
    const found = ratio(colour, behind(element));
    if (found < 4.5) faults.add(`${found.toFixed(1)}: ${said.slice(0, 40)}`);
  }
  return [...faults];
})()
