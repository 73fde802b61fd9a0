// The error catalogue's filter: an entry is shown if it has all words that were typed.
document.addEventListener("DOMContentLoaded", () => {
  const place = document.getElementById("filter-place");
  if (!place) {
    return;
  }
  const field = document.createElement("input");
  field.type = "search";
  field.id = "filter";
  field.className = "filter";
  field.placeholder = "A text, EBUSY, a function";
  field.setAttribute("aria-label", "Filter the errors");
  const count = document.createElement("p");
  count.setAttribute("aria-live", "polite");
  place.append(field, count);

  const entries = [...document.querySelectorAll(".entry")];
  const texts = entries.map((entry) => entry.textContent.toLowerCase());
  const apply = () => {
    const words = field.value.toLowerCase().split(/\s+/).filter((word) => word);
    let shown = 0;
    entries.forEach((entry, i) => {
      entry.hidden = !words.every((word) => texts[i].includes(word));
      shown += entry.hidden ? 0 : 1;
    });
    count.textContent = `${shown} of ${entries.length} texts`;
  };
  field.addEventListener("input", apply);
  // A link to an entry must not lead to a hidden one.
  window.addEventListener("hashchange", () => { field.value = ""; apply(); });
  apply();
});
