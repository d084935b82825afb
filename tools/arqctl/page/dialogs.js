// The questions before something is changed: one dialog each, which says what will happen, asks for the token when
// there is none, and stays open with the reason when the server refuses.

import * as control from "./control.js";
import { byId, setText } from "./dom.js";

class Question {
  #dialog;
  #form;
  #word; // of the button that sends it
  #act;
  #onDone;
  #channelId = "";
  #subject = "";

  // act(channel id, FormData, token, subject) sends the change; onDone(text) tells of it.
  constructor(id, word, act, onDone) {
    this.#dialog = byId(id);
    this.#form = this.#dialog.querySelector("form");
    this.#word = word;
    this.#act = act;
    this.#onDone = onDone;
    this.#form.append(byId("dialog_end").content.cloneNode(true));
    setText(this.#form.querySelector(".go"), this.#word);
    this.#form.querySelector(".cancel").addEventListener("click", () => this.#dialog.close());
    this.#form.addEventListener("submit", (event) => this.#submit(event));
  }

  get form() {
    return this.#form;
  }

  ask(channel, subject = "") {
    if (this.#dialog.open) return;
    this.#channelId = channel.id;
    this.#subject = subject;
    for (const name of this.#form.querySelectorAll(".channel")) setText(name, channel.name ?? channel.id);
    for (const name of this.#form.querySelectorAll(".subject")) setText(name, subject);
    this.#say("");
    this.#showToken();
    this.#dialog.showModal();
  }

  #showToken() {
    const isNeeded = control.token() === "";
    const label = this.#form.querySelector(".token");
    label.hidden = !isNeeded;
    label.querySelector("input").disabled = !isNeeded;
    label.querySelector("input").value = "";
  }

  #say(text) {
    setText(this.#form.querySelector(".outcome"), text);
  }

  async #submit(event) {
    event.preventDefault();
    const data = new FormData(this.#form);
    const token = data.get("token") ?? control.token();
    const go = this.#form.querySelector(".go");
    this.#say("");
    go.disabled = true; // one change at a time
    setText(go, "Wait…"); // deliberate loss takes the proxy a second or two
    control.keepToken(token);
    const answer = await this.#act(this.#channelId, data, token, this.#subject);
    go.disabled = false;
    setText(go, this.#word);
    this.#showToken();
    if (!answer.isDone) return this.#say(answer.text);
    this.#dialog.close();
    this.#onDone(answer.text);
  }
}

function impairmentOf(data) {
  if (data.get("on") !== "yes") return { on: false };
  const settings = { on: true };
  for (const name of ["mode", "min_drop", "min_dist", "max_dist"])
    if (data.has(name)) settings[name] = Number(data.get(name));
  return settings;
}

// Settings that have no effect cannot be typed: none while it is switched off, no largest gap of fixed gaps.
function followChoices(form) {
  const update = () => {
    const isOn = form.elements.on.value === "yes";
    for (const name of ["mode", "min_drop", "min_dist", "max_dist"]) form.elements[name].disabled = !isOn;
    if (form.elements.mode.value === "1") form.elements.max_dist.disabled = true;
    form.elements.max_dist.min = form.elements.min_dist.value;
  };
  form.addEventListener("input", update);
  return update;
}

// Returns {add(channel), remove(channel, address), impair(channel)}: each asks first. onDone(text) tells what was done.
export function makeDialogs(onDone) {
  const add = new Question(
    "add_dialog",
    "Add",
    (id, data, token) => control.addReceiver(id, data.get("address").trim(), token),
    onDone,
  );
  const remove = new Question(
    "delete_dialog",
    "Delete",
    (id, _, token, address) => control.deleteReceiver(id, address, token),
    onDone,
  );
  const impair = new Question(
    "impair_dialog",
    "Set",
    (id, data, token) => control.setImpairment(id, impairmentOf(data), token),
    onDone,
  );
  const update = followChoices(impair.form);
  return {
    add: (channel) => add.ask(channel),
    remove: (channel, address) => remove.ask(channel, address),
    impair: (channel) => {
      impair.form.elements.on.value = channel.impairment === true ? "no" : "yes";
      update();
      impair.ask(channel);
    },
  };
}
