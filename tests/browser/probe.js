// What a page is like, as its browser shows it: evaluated in the page, gives JSON.
(() => {
  const number = (color) => (color.match(/[\d.]+/g) || []).map(Number);
  const linear = (value) => {
    const share = value / 255;
    return share <= 0.03928 ? share / 12.92 : ((share + 0.055) / 1.055) ** 2.4;
  };
  const luminance = ([red, green, blue]) =>
    0.2126 * linear(red) + 0.7152 * linear(green) + 0.0722 * linear(blue);
  const paper = (element) => {
    for (let at = element; at; at = at.parentElement) {
      const color = number(getComputedStyle(at).backgroundColor);
      if (color.length === 3 || color[3] > 0) {
        return color;
      }
    }
    return [255, 255, 255];
  };
  const contrast = (element) => {
    const [light, dark] = [number(getComputedStyle(element).color), paper(element)]
      .map(luminance)
      .sort((one, other) => other - one);
    return (light + 0.05) / (dark + 0.05);
  };
  const all = (selector) => [...document.querySelectorAll(selector)];
  const texts = all("body *").filter(
    (element) =>
      !element.closest("svg") &&
      [...element.childNodes].some((node) => node.nodeType === 3 && node.textContent.trim()),
  );
  const ids = all("[id]").map((element) => element.id);
  const levels = all("h1, h2, h3, h4").map((heading) => Number(heading.tagName[1]));
  return JSON.stringify({
    title: document.title,
    text: document.body.innerText,
    scripts: document.scripts.length,
    foreign: all("[src], link, iframe, object, embed, img, use, image").length,
    handlers: all("*").filter((element) =>
      [...element.attributes].some((attribute) => attribute.name.startsWith("on")),
    ).length,
    width: document.documentElement.scrollWidth,
    height: document.documentElement.scrollHeight,
    load: performance.getEntriesByType("navigation")[0].duration,
    faint: texts.filter((element) => contrast(element) < 4.5).map((element) => element.outerHTML.slice(0, 120)),
    tables: all("table").length,
    bare_tables: all("table").filter((table) => !table.caption || !table.caption.textContent.trim()).length,
    bare_heads: all("th:not([scope])").length,
    bare_drawings: all("svg").filter(
      (svg) => svg.getAttribute("aria-hidden") !== "true" && !(svg.getAttribute("role") === "img" && svg.getAttribute("aria-label")),
    ).length,
    repeated: ids.filter((id, at) => ids.indexOf(id) !== at),
    dead_links: all('a[href^="#"]').filter((link) => !document.getElementById(link.hash.slice(1))).length,
    dead_labels: all("[aria-labelledby]").filter((element) => !document.getElementById(element.getAttribute("aria-labelledby"))).length,
    skipped_levels: levels.filter((level, at) => at > 0 && level > levels[at - 1] + 1).length,
    lanes: all(".lane").length,
    marks: all(".lane a.sign").length,
    blocks: [...new Set(all(".lane rect").map((rect) => rect.getAttribute("class")))],
    charts: all("figure").length,
    outliers: all("figure .outlier, figure .lost").length,
    open_details: all("details[open]").length,
    talk: all(".talk tbody tr").length,
    failures: all(".failure").map((failure) => failure.innerText),
    rows: all("main table:not(.talk) tbody tr").map((row) => row.innerText.replace(/\s+/g, " ").trim()),
    links: all("main table a").map((link) => link.getAttribute("href")),
  });
})();
