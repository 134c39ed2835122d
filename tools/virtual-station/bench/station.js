// The charging station as the driver sees it. The lamp and the buzzer follow the daemon's feedback calls only. The
// display shows what the station's other programs would say about the outcome.

const lastingTime = 4000;  // ms for which lamp and message last

export const outcomes = {
  waiting: ['at the reader', 'Waiting for the daemon'],
  accepted: ['accepted', 'It is in the local list'],
  rejected: ['rejected', 'It is not in the local list'],
  deferred: ['deferred', 'The backend decides (OCPP)'],
  invalid: ['invalid', 'It has no valid UID'],
  learned: ['learned', 'Reported as a learning token'],
  free: ['scanned', 'Charging is free, nothing to authorise'],
  unanswered: ['no answer', 'Not read, or seen less than two seconds before'],
};

const feedbacks = {
  scanned: ['blinking blue', 'one short beep', ['One moment', 'Checking your card']],
  accepted: ['green', 'two short beeps', ['Welcome!', 'Plug in to charge']],
  rejected: ['red', 'one long beep', ['Card not accepted', 'Please try another card']],
};

const messages = {
  deferred: ['One moment', 'Asking your provider'],
  invalid: ['Card not readable', 'Please try another card'],
  learned: ['Card learned', 'Reported to the station'],
  free: ['Charging is free', 'Just plug in your car'],
};

const idle = snapshot => {
  if (!snapshot.there) return ['Out of service', 'We will be back soon'];
  if (/Error/.test(snapshot.state)) return ['Out of service', 'The reader has a fault'];
  if (snapshot.state !== 'Enabled') return ['Not in service', 'Cards are not read now'];
  if (snapshot.learning) return ['Learning mode', 'Hold a new card here'];
  if (snapshot.settings?.free) return ['Charging is free', 'Just plug in your car'];
  return ['Hello!', 'Hold your card here'];
};

export class Station {
  constructor(element) {
    this.find = id => document.getElementById(id);
    this.post = element;
    this.last = 0;
    this.lastOutcome = '';
  }

  restart() {
    this.last = 0;
    this.lastOutcome = '';
  }

  update(snapshot) {
    const first = !this.snapshot || this.last === 0;
    this.snapshot = snapshot;
    const newest = snapshot.feedback.at(-1);
    if (newest && newest.number > this.last) {
      this.last = newest.number;
      if (!first) this.feel(newest.event);
    }
    this.last = Math.max(this.last, 1);
    const card = snapshot.cards.at(-1);
    const outcome = card ? `${card.number} ${card.outcome}` : '';
    if (outcome !== this.lastOutcome) {
      this.lastOutcome = outcome;
      if (card) this.report(card, first);
    }
    this.render();
  }

  // A feedback call: light and sound.
  feel(event) {
    this.feedback = feedbacks[event] ? event : undefined;
    this.message = feedbacks[event]?.[2];
    this.lasting();
    const sound = this.find('sound');
    sound.setAttribute('class', 'sound');
    sound.getBoundingClientRect();  // restarts the animation
    sound.setAttribute('class', event === 'rejected' ? 'sound long' : 'sound now');
  }

  report(card, old) {
    const [word, reason] = outcomes[card.outcome] ?? [card.outcome, 'Unknown outcome'];
    const field = this.find('outcome');
    field.dataset.outcome = card.outcome;
    field.textContent = `${card.uid || 'A card without UID'}: ${word}. ${reason}.`;
    if (!old && messages[card.outcome]) {
      this.message = messages[card.outcome];
      this.lasting();
    }
  }

  lasting() {
    clearTimeout(this.timer);
    this.timer = setTimeout(() => {
      this.feedback = this.message = undefined;
      this.render();
    }, lastingTime);
  }

  render() {
    const ready = this.snapshot.there && this.snapshot.state === 'Enabled';
    const feedback = this.snapshot.there ? this.feedback : undefined;
    const [title, text] = (this.snapshot.there && this.message) || idle(this.snapshot);
    this.post.dataset.lamp = feedback ?? (ready ? 'ready' : 'off');
    this.find('display-title').textContent = title;
    this.find('display-text').textContent = text;
    this.find('lamp-text').textContent = feedback ? feedbacks[feedback][0] : ready ? 'ready' : 'off';
    this.find('buzzer-text').textContent = feedback ? feedbacks[feedback][1] : 'silent';
  }

  // The card moves to the reader.
  tap(colour) {
    const card = this.find('tapping');
    card.style.setProperty('--card', colour);
    card.classList.remove('now');
    card.getBoundingClientRect();
    card.classList.add('now');
  }
}
