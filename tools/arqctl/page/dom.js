// Makes and changes elements. Whatever came over the network gets into the page as text only.

export const byId = (id) => document.getElementById(id);

// make("p", {class: "x", role: "y"}, child or text...)
export function make(name, attributes = {}, ...children) {
  const element = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  element.append(...children);
  return element;
}

// Touches the page only when there is something new: what did not change is neither laid out nor read out again.
export function setText(element, text) {
  const plain = String(text);
  if (element.textContent !== plain) element.textContent = plain;
}

export function setData(element, key, value) {
  if (element.dataset[key] !== String(value)) element.dataset[key] = value;
}

export function setHidden(element, hidden) {
  if (element.hidden !== hidden) element.hidden = hidden;
}

// Children in this order, moving as few as possible: the one with the keyboard's focus keeps it.
export function setChildren(parent, wanted) {
  const keep = new Set(wanted);
  for (const child of [...parent.children]) if (!keep.has(child)) child.remove();
  wanted.forEach((child, index) => {
    if (parent.children[index] !== child) parent.insertBefore(child, parent.children[index] ?? null);
  });
}
