// SPDX-License-Identifier: GPL-2.0
// An NFC reader for the kernel's "digital" stack; a program simulates its radio. The module does with /dev/digi-reader what
// the driver trf7970a does with its chip: the same states, locking, abort, field switching and error codes. A command
// without an answer ends with -ETIMEDOUT, in a delayed work.
//
// The program reads, one line per read:
//   cmd SEQ TECH HEX         a frame for the tags; the reader adds and checks the CRC
//   rf 0 / rf 1              the field goes off, on
// and writes:
//   plug / unplug            adds, removes the NFC device
//   answer SEQ HEX           a tag's frame, without CRC
//   error SEQ ERRNO          the command ends with an error (bad CRC, collision)
//   fail CALL ERRNO N        the next N of these calls by the stack fail at once; CALL: send, configure, switch,
//                            framing (configuring for a tag that was found)
//   slow CALL MS             these calls take this much longer, holding the driver's lock
//   hang 0 / hang 1          commands end as usual, never end
#include <linux/delay.h>
#include <linux/fs.h>
#include <linux/kfifo.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/poll.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include <linux/workqueue.h>
#include <net/nfc/digital.h>

#define PROTOCOLS                                                                      \
	(NFC_PROTO_MIFARE_MASK | NFC_PROTO_ISO14443_MASK | NFC_PROTO_ISO14443_B_MASK | \
	 NFC_PROTO_FELICA_MASK | NFC_PROTO_ISO15693_MASK | NFC_PROTO_NFC_DEP_MASK)
#define MAX_LINE 700

enum { PWR_OFF, RF_OFF, IDLE, WAITING };

/* Guarded by plug_lock, which serialises the program's commands. */
static DEFINE_MUTEX(plug_lock);
static struct nfc_digital_dev *ddev;

/* Guarded by lock, the driver's own. */
static DEFINE_MUTEX(lock);
static int state = PWR_OFF;
static bool aborting, ignore_timeout, hang;
static int tech;
static unsigned int seq;
static struct sk_buff *tx, *rx;
static nfc_digital_cmd_complete_t done;
static void *done_arg;

/* The faults of the calls by the stack, guarded by lock. FRAMING is configuring for a tag that was found. */
enum { SEND, CONFIGURE, SWITCH, FRAMING, CALLS };
static const char *const call_names[CALLS] = { "send", "configure", "switch", "framing" };
static struct {
	int err, left, ms;
} calls[CALLS];

/* What the program has not read yet; added with lock held. */
static STRUCT_KFIFO_REC_2(1 << 14) lines;
static DECLARE_WAIT_QUEUE_HEAD(lines_wait);

static __printf(1, 2) void tell(const char *fmt, ...)
{
	static char text[MAX_LINE];
	va_list ap;

	va_start(ap, fmt);
	kfifo_in(&lines, text, vscnprintf(text, sizeof(text), fmt, ap));
	va_end(ap);
	wake_up(&lines_wait);
}

static int disturbed(int call)
{
	if (calls[call].ms)
		msleep(calls[call].ms);
	return calls[call].left > 0 && calls[call].left-- > 0 ? calls[call].err : 0;
}

/* Ends the current command. */
static void upstream(struct sk_buff *resp)
{
	dev_kfree_skb(tx);
	tx = NULL;
	state = IDLE;
	if (aborting) {
		if (!IS_ERR(resp)) {
			kfree_skb(resp);
			resp = ERR_PTR(-ECANCELED);
		}
		aborting = false;
	}
	seq++;
	done(ddev, done_arg, resp);
}

static void timeout_fn(struct work_struct *w)
{
	mutex_lock(&lock);
	if (tx && !ignore_timeout)
		upstream(ERR_PTR(-ETIMEDOUT));
	ignore_timeout = false;
	mutex_unlock(&lock);
}
static DECLARE_DELAYED_WORK(timeout_work, timeout_fn);

static void rx_fn(struct work_struct *w)
{
	struct sk_buff *resp;

	mutex_lock(&lock);
	resp = rx;
	rx = NULL;
	if (resp && state == WAITING) {
		ignore_timeout = !cancel_delayed_work(&timeout_work) && !hang;
		upstream(resp);
	} else if (resp && !IS_ERR(resp)) {
		kfree_skb(resp);
	}
	mutex_unlock(&lock);
}
static DECLARE_WORK(rx_work, rx_fn);

static void rf_off(void)
{
	if (state == PWR_OFF || state == RF_OFF)
		return;
	aborting = false;
	state = RF_OFF;
	tell("rf 0");
}

static int rf_on(void)
{
	if (state != RF_OFF)
		return -EINVAL;
	state = IDLE;
	tell("rf 1");
	return 0;
}

static int op_switch_rf(struct nfc_digital_dev *d, bool on)
{
	int ret;

	mutex_lock(&lock);
	ret = disturbed(SWITCH);
	if (!ret && !on) {
		rf_off();
	} else if (!ret && (state == PWR_OFF || state == RF_OFF)) {
		ret = rf_on();
	} else if (!ret && state != IDLE) {
		rf_off();
		ret = -EINVAL;
	}
	mutex_unlock(&lock);
	return ret;
}

static int op_in_configure(struct nfc_digital_dev *d, int type, int param)
{
	int ret;

	mutex_lock(&lock);
	ret = disturbed(CONFIGURE);
	if (!ret && (state == PWR_OFF || state == RF_OFF))
		ret = rf_on();
	if (!ret && type == NFC_DIGITAL_CONFIG_RF_TECH)
		tech = param;
	if (!ret && type == NFC_DIGITAL_CONFIG_FRAMING)
		ret = param == NFC_DIGITAL_FRAMING_NFCA_T1T || param == NFC_DIGITAL_FRAMING_NFCA_ANTICOL_COMPLETE ||
				      param == NFC_DIGITAL_FRAMING_NFC_DEP_ACTIVATED ?
			      -EINVAL : /* as trf7970a */
		      param == NFC_DIGITAL_FRAMING_NFCA_T2T || param == NFC_DIGITAL_FRAMING_NFCA_T4T ?
			      disturbed(FRAMING) :
			      0;
	mutex_unlock(&lock);
	return ret;
}

static int op_in_send(struct nfc_digital_dev *d, struct sk_buff *skb, u16 timeout, nfc_digital_cmd_complete_t cb,
		      void *arg)
{
	int ret = 0;

	mutex_lock(&lock);
	if (state != IDLE) {
		pr_err("digireader: Bogus state: %d\n", state);
		ret = -EIO;
	} else if (aborting) {
		aborting = false;
		ret = -ECANCELED;
	} else {
		ret = disturbed(SEND);
	}
	if (!ret) {
		tx = skb;
		done = cb;
		done_arg = arg;
		ignore_timeout = false;
		state = WAITING;
		if (!hang)
			schedule_delayed_work(&timeout_work, msecs_to_jiffies(timeout));
		tell("cmd %u %d %*phN", seq, tech, (int)min(skb->len, 64u), skb->data);
	}
	mutex_unlock(&lock);
	return ret;
}

/* Target mode (acting as a tag for another reader) is not supported. */
static int op_tg_send(struct nfc_digital_dev *d, struct sk_buff *skb, u16 timeout, nfc_digital_cmd_complete_t cb,
		      void *arg)
{
	return -EOPNOTSUPP;
}

static int op_tg_listen(struct nfc_digital_dev *d, u16 timeout, nfc_digital_cmd_complete_t cb, void *arg)
{
	return -EOPNOTSUPP;
}

static void op_abort(struct nfc_digital_dev *d)
{
	mutex_lock(&lock);
	if (state == WAITING)
		aborting = true;
	mutex_unlock(&lock);
}

static const struct nfc_digital_ops ops = {
	.in_configure_hw = op_in_configure,
	.in_send_cmd = op_in_send,
	.tg_configure_hw = op_in_configure,
	.tg_send_cmd = op_tg_send,
	.tg_listen = op_tg_listen,
	.switch_rf = op_switch_rf,
	.abort_cmd = op_abort,
};

static int plug(void)
{
	struct nfc_digital_dev *d;
	int ret;

	if (ddev)
		return -EEXIST;
	d = nfc_digital_allocate_device(&ops, PROTOCOLS, NFC_DIGITAL_DRV_CAPS_IN_CRC | NFC_DIGITAL_DRV_CAPS_TG_CRC,
					0, 0);
	if (!d)
		return -ENOMEM;
	mutex_lock(&lock);
	ddev = d;
	state = RF_OFF;
	aborting = ignore_timeout = false;
	mutex_unlock(&lock);
	ret = nfc_digital_register_device(d);
	if (ret) {
		nfc_digital_free_device(d);
		ddev = NULL;
	}
	return ret;
}

static int unplug(void)
{
	if (!ddev)
		return -ENODEV;
	mutex_lock(&lock);
	if (tx) {
		cancel_delayed_work(&timeout_work);
		upstream(ERR_PTR(-ECANCELED));
	}
	rf_off();
	state = PWR_OFF;
	mutex_unlock(&lock);
	nfc_digital_unregister_device(ddev);
	cancel_delayed_work_sync(&timeout_work);
	cancel_work_sync(&rx_work);
	nfc_digital_free_device(ddev);
	ddev = NULL;
	return 0;
}

static int answer(unsigned int s, const char *hex, int err)
{
	struct sk_buff *skb = ERR_PTR(-err);
	size_t n = strlen(hex) / 2;
	int ret = -ESTALE;

	if (!err) {
		skb = alloc_skb(n + 256, GFP_KERNEL);
		if (!skb)
			return -ENOMEM;
		if (hex2bin(skb_put(skb, n), hex, n)) {
			kfree_skb(skb);
			return -EINVAL;
		}
	}
	mutex_lock(&lock);
	if (s == seq && state == WAITING && !rx) {
		rx = skb;
		schedule_work(&rx_work);
		ret = 0;
	}
	mutex_unlock(&lock);
	if (ret && !err)
		kfree_skb(skb);
	return ret;
}

static int command(char *text)
{
	static char what[16], hex[600];
	unsigned int s;
	int i, a, b;

	if (!strcmp(text, "plug"))
		return plug();
	if (!strcmp(text, "unplug"))
		return unplug();
	if (sscanf(text, "answer %u %599s", &s, hex) == 2)
		return answer(s, hex, 0);
	if (sscanf(text, "error %u %d", &s, &a) == 2)
		return answer(s, "", a);
	if (sscanf(text, "hang %d", &i) == 1)
		return (hang = i, 0);
	if (sscanf(text, "fail %15s %d %d", what, &a, &b) == 3 && (i = match_string(call_names, CALLS, what)) >= 0) {
		calls[i].err = -a;
		calls[i].left = b;
		return 0;
	}
	if (sscanf(text, "slow %15s %d", what, &a) == 2 && (i = match_string(call_names, CALLS, what)) >= 0) {
		calls[i].ms = a;
		return 0;
	}
	return -EINVAL;
}

static ssize_t dev_write(struct file *f, const char __user *buf, size_t n, loff_t *off)
{
	char *text;
	int ret;

	if (n > MAX_LINE)
		return -EINVAL;
	text = memdup_user_nul(buf, n);
	if (IS_ERR(text))
		return PTR_ERR(text);
	mutex_lock(&plug_lock);
	ret = command(text);
	mutex_unlock(&plug_lock);
	kfree(text);
	return ret ? ret : n;
}

static ssize_t dev_read(struct file *f, char __user *buf, size_t n, loff_t *off)
{
	unsigned int copied = 0;
	int ret = kfifo_to_user(&lines, buf, n, &copied);

	return ret ? ret : copied ? copied : -EAGAIN;
}

static __poll_t dev_poll(struct file *f, poll_table *t)
{
	poll_wait(f, &lines_wait, t);
	return EPOLLOUT | (kfifo_is_empty(&lines) ? 0 : EPOLLIN);
}

static int dev_open(struct inode *i, struct file *f)
{
	INIT_KFIFO(lines);
	return nonseekable_open(i, f);
}

static int dev_release(struct inode *i, struct file *f)
{
	mutex_lock(&plug_lock);
	unplug();
	mutex_unlock(&plug_lock);
	return 0;
}

static const struct file_operations fops = {
	.owner = THIS_MODULE,
	.open = dev_open,
	.release = dev_release,
	.read = dev_read,
	.write = dev_write,
	.poll = dev_poll,
};

static struct miscdevice misc = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = "digi-reader",
	.fops = &fops,
	.mode = 0666,
};
module_misc_device(misc);

MODULE_DESCRIPTION("NFC reader for the digital stack, its radio in user space");
MODULE_LICENSE("GPL");
