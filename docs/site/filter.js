// The error catalogue's filter: an entry is shown if it has all words that were typed, or if its text is a part of what
// was typed, as of a line from a log.
document.addEventListener("DOMContentLoaded", () => {
  const place = document.getElementById("filter-place");
  if (!place) {
    return;
  }
  const field = document.createElement("input");
  field.type = "search";
  field.id = "filter";
  field.className = "filter";
  field.placeholder = "A line of a log, EBUSY, a function";
  field.setAttribute("aria-label", "Filter the errors");
  const count = document.createElement("p");
  count.setAttribute("aria-live", "polite");
  place.append(field, count);

  const entries = [...document.querySelectorAll(".entry")];
  const texts = entries.map((entry) => entry.textContent.toLowerCase());
  // Each section's heading and its entries.
  const sections = [];
  document.querySelectorAll(".contents h1, .entry").forEach((element) => {
    if (element.matches(".entry")) {
      sections.at(-1)?.entries.push(element);
    } else {
      sections.push({heading: element, entries: []});
    }
  });
  // The parts of each fixed text, without what varies between them.
  const fixed = entries.map((entry) => entry.querySelector(".text").textContent.toLowerCase().split("...")
    .map((part) => part.trim()).filter((part) => part));
  const apply = () => {
    const typed = field.value.toLowerCase();
    const words = typed.split(/\s+/).filter((word) => word);
    let shown = 0;
    entries.forEach((entry, i) => {
      entry.hidden = !words.every((word) => texts[i].includes(word)) && !fixed[i].every((part) => typed.includes(part));
      shown += entry.hidden ? 0 : 1;
    });
    sections.forEach((section) => { section.heading.hidden = section.entries.every((entry) => entry.hidden); });
    count.textContent = `${shown} of ${entries.length} texts`;
  };
  field.addEventListener("input", apply);
  // A link to an entry must not lead to a hidden one.
  window.addEventListener("hashchange", () => {
    field.value = "";
    apply();
    document.getElementById(decodeURIComponent(location.hash.slice(1)))?.scrollIntoView();
  });
  apply();
});
