// The charging station as the driver sees it. The lamp and the buzzer follow the daemon's feedback calls only. The
// display shows what the station's other programs would say about the outcome.

const lastingTime = 4000;  // ms for which lamp and message last

// Each with a word, the reason, and what the display shows unless a feedback call says it.
export const outcomes = {
  waiting: ['at the reader', 'Waiting for the daemon'],
  accepted: ['accepted', 'It is in the local list'],
  rejected: ['rejected', 'It is not in the local list'],
  deferred: ['deferred', 'The backend decides (OCPP)', ['One moment', 'Asking your provider']],
  invalid: ['invalid', 'It has no valid UID', ['Card not readable', 'Please try another card']],
  learned: ['learned', 'Reported as a learning token', ['Card learned', 'Reported to the station']],
  free: ['scanned', 'Charging is free, nothing to authorise', ['Charging is free', 'Just plug in your car']],
  unanswered: ['no answer', 'Not read, or seen less than two seconds before'],
};

const feedbacks = {
  scanned: ['blinking blue', 'one short beep', ['One moment', 'Checking your card']],
  accepted: ['green', 'two short beeps', ['Welcome!', 'Plug in to charge']],
  rejected: ['red', 'one long beep', ['Card not accepted', 'Please try another card']],
};

const idle = snapshot => {
  if (!snapshot.there) return ['Out of service', 'We will be back soon'];
  if (/Error/.test(snapshot.state)) return ['Out of service', 'The reader has a fault'];
  if (snapshot.state !== 'Enabled') return ['Not in service', 'Cards are not read now'];
  if (snapshot.learning) return ['Learning mode', 'Hold a new card here'];
  if (snapshot.settings?.free) return ['Charging is free', 'Just plug in your car'];
  return ['Hello!', 'Hold your card here'];
};

const find = id => document.getElementById(id);

// Starts the animation of a class, also when it has run before.
export function animate(element, name) {
  element.classList.remove('now', name);
  element.getBoundingClientRect();
  element.classList.add(name);
}

export class Station {
  update(snapshot) {
    const isFirst = !this.snapshot;
    this.snapshot = snapshot;
    const feedback = snapshot.feedback.at(-1);
    if (feedback && feedback.number !== this.number) {
      this.number = feedback.number;
      if (!isFirst) this.feel(feedback.event);
    }
    const card = snapshot.cards.at(-1);
    const outcome = card && `${card.number} ${card.outcome}`;
    if (outcome !== this.outcome) {
      this.outcome = outcome;
      if (card) this.report(card, isFirst);
    }
    this.render();
  }

  // A feedback call: light and sound.
  feel(event) {
    this.feedback = feedbacks[event] ? event : undefined;
    this.say(feedbacks[event]?.[2]);
    find('sound').classList.remove('long');
    animate(find('sound'), event === 'rejected' ? 'long' : 'now');
  }

  report(card, isOld) {
    const [word, reason, message] = outcomes[card.outcome] ?? [card.outcome, 'Unknown outcome'];
    find('outcome').dataset.outcome = card.outcome;
    find('outcome').textContent = `${card.uid || 'A card without UID'}: ${word}. ${reason}.`;
    if (!isOld && message) this.say(message);
  }

  say(message) {
    this.message = message;
    clearTimeout(this.timer);
    this.timer = setTimeout(() => {
      this.feedback = this.message = undefined;
      this.render();
    }, lastingTime);
  }

  render() {
    const { there, state } = this.snapshot;
    const ready = there && state === 'Enabled' ? 'ready' : 'off';
    const [lamp, buzzer] = (there && feedbacks[this.feedback]) || [ready, 'silent'];
    const [title, text] = (there && this.message) || idle(this.snapshot);
    find('post').dataset.lamp = (there && this.feedback) || ready;
    find('display-title').textContent = title;
    find('display-text').textContent = text;
    find('lamp-text').textContent = lamp;
    find('buzzer-text').textContent = buzzer;
  }

  // The card moves to the reader.
  tap(colour) {
    find('tapping').style.setProperty('--card', colour);
    animate(find('tapping'), 'now');
  }
}
