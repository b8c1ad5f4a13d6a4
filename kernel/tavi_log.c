// SPDX-License-Identifier: GPL-2.0
/*
 * Queue of incident records between kernel drivers and the tavi listener.
 *
 * Drivers call tavi_report(); the listener polls /sys/kernel/tavi/log for
 * POLLPRI/POLLERR, then reads it from offset 0 again and again: each read
 * hands over the oldest pending record as one text line and removes it, and
 * an empty read tells that nothing is pending any more.
 */
#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/kernel.h>
#include <linux/kernfs.h>
#include <linux/kobject.h>
#include <linux/module.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/sysfs.h>

#include "tavi_log.h"

/*
 * As many records as the listener caches while its event service is down, so
 * a stalled listener loses nothing the queue could have kept for it.
 */
#define TAVI_QUEUE_LEN 128
#define TAVI_FIELDS 7
/* Seven fields of at most 11 characters, six commas and a line feed. */
#define TAVI_LINE_MAX (TAVI_FIELDS * 12 + 1)

struct tavi_record {
	u32 category;
	u32 level;
	u32 code;
	s32 param[4];
};

static bool allow_inject;
module_param(allow_inject, bool, 0444);
MODULE_PARM_DESC(allow_inject,
		 "Create the write-only 'inject' attribute that queues a record written to it (testing only)");

static DEFINE_SPINLOCK(tavi_lock);
static struct tavi_record tavi_queue[TAVI_QUEUE_LEN];
static unsigned int tavi_head;
static unsigned int tavi_count;
static unsigned long tavi_dropped;

static struct kobject *tavi_kobj;
/* Held from init to exit so that reporting never has to look it up. */
static struct kernfs_node *tavi_log_kn;

/*
 * A full queue drops the newest record: the first records of a burst usually
 * name the cause and the later ones repeat it, and the listener's own cache
 * keeps the oldest for the same reason.
 */
static bool tavi_push_locked(const struct tavi_record *rec)
{
	if (tavi_count == TAVI_QUEUE_LEN) {
		tavi_dropped++;
		return false;
	}
	tavi_queue[(tavi_head + tavi_count) % TAVI_QUEUE_LEN] = *rec;
	tavi_count++;
	return true;
}

static bool tavi_pop(struct tavi_record *rec)
{
	unsigned long flags;
	bool found = false;

	spin_lock_irqsave(&tavi_lock, flags);
	if (tavi_count) {
		*rec = tavi_queue[tavi_head];
		tavi_head = (tavi_head + 1) % TAVI_QUEUE_LEN;
		tavi_count--;
		found = true;
	}
	spin_unlock_irqrestore(&tavi_lock, flags);
	return found;
}

static int tavi_queue_record(const struct tavi_record *rec)
{
	unsigned long flags, dropped;
	bool queued;

	if (rec->category > S32_MAX || rec->level > S32_MAX ||
	    rec->code > S32_MAX)
		return -ERANGE;

	spin_lock_irqsave(&tavi_lock, flags);
	queued = tavi_push_locked(rec);
	dropped = tavi_dropped;
	spin_unlock_irqrestore(&tavi_lock, flags);

	if (!queued) {
		pr_warn_ratelimited("queue full, dropped record %u,%u,%u (%lu dropped so far)\n",
				    rec->category, rec->level, rec->code,
				    dropped);
		return -ENOSPC;
	}

	/*
	 * sysfs_notify() looks the attribute up under a sleeping lock;
	 * kernfs_notify() on the node held since init only takes spinlocks and
	 * defers the fsnotify part to a work item, so it is safe here in any
	 * context. It bumps the event count that poll() compares with the
	 * count the reader saw at its last read.
	 */
	kernfs_notify(tavi_log_kn);
	return 0;
}

int tavi_report(u32 category, u32 level, u32 code,
		s32 p1, s32 p2, s32 p3, s32 p4)
{
	const struct tavi_record rec = {
		.category = category,
		.level = level,
		.code = code,
		.param = { p1, p2, p3, p4 },
	};

	return tavi_queue_record(&rec);
}
EXPORT_SYMBOL_GPL(tavi_report);

/*
 * sysfs calls show() for every read at offset 0 (the listener seeks back to 0
 * before each read) and serves reads at later offsets from the text of that
 * call, so each record is handed out exactly once.
 */
static ssize_t log_show(struct kobject *kobj, struct kobj_attribute *attr,
			char *buf)
{
	struct tavi_record rec;

	if (!tavi_pop(&rec))
		return 0;
	return sysfs_emit(buf, "%u,%u,%u,%d,%d,%d,%d\n", rec.category,
			  rec.level, rec.code, rec.param[0], rec.param[1],
			  rec.param[2], rec.param[3]);
}

static ssize_t dropped_show(struct kobject *kobj, struct kobj_attribute *attr,
			    char *buf)
{
	unsigned long flags, dropped;

	spin_lock_irqsave(&tavi_lock, flags);
	dropped = tavi_dropped;
	spin_unlock_irqrestore(&tavi_lock, flags);
	return sysfs_emit(buf, "%lu\n", dropped);
}

/* Parses "category,level,code,p1,p2,p3,p4" with an optional line feed. */
static int tavi_parse_record(char *text, struct tavi_record *rec)
{
	char *field[TAVI_FIELDS];
	char *rest = strim(text);
	int i, ret;

	for (i = 0; i < TAVI_FIELDS; i++) {
		field[i] = strsep(&rest, ",");
		if (!field[i])
			return -EINVAL;
	}
	if (rest)
		return -EINVAL;

	ret = kstrtou32(field[0], 10, &rec->category);
	if (!ret)
		ret = kstrtou32(field[1], 10, &rec->level);
	if (!ret)
		ret = kstrtou32(field[2], 10, &rec->code);
	for (i = 3; i < TAVI_FIELDS && !ret; i++)
		ret = kstrtos32(field[i], 10, &rec->param[i - 3]);
	return ret;
}

static ssize_t inject_store(struct kobject *kobj, struct kobj_attribute *attr,
			    const char *buf, size_t count)
{
	char text[TAVI_LINE_MAX + 1];
	struct tavi_record rec;
	int ret;

	if (count > TAVI_LINE_MAX)
		return -EINVAL;
	memcpy(text, buf, count);
	text[count] = '\0';

	ret = tavi_parse_record(text, &rec);
	if (!ret)
		ret = tavi_queue_record(&rec);
	return ret ? ret : count;
}

/*
 * Reading log takes the record away, so only the listener may read it: owner
 * only, and init hands the file to the listener's user at boot.
 */
static struct kobj_attribute log_attr = __ATTR_RO_MODE(log, 0400);
static struct kobj_attribute dropped_attr = __ATTR_RO(dropped);
static struct kobj_attribute inject_attr = __ATTR_WO(inject);

static struct attribute *tavi_attrs[] = {
	&log_attr.attr,
	&dropped_attr.attr,
	NULL,
};

static const struct attribute_group tavi_group = {
	.attrs = tavi_attrs,
};

/*
 * inject is created only once the node it notifies is known: a write racing
 * with the load must not reach kernfs_notify() before tavi_log_kn is set.
 */
static int __init tavi_log_init(void)
{
	int ret;

	tavi_kobj = kobject_create_and_add("tavi", kernel_kobj);
	if (!tavi_kobj)
		return -ENOMEM;

	ret = sysfs_create_group(tavi_kobj, &tavi_group);
	if (ret)
		goto err_put;

	tavi_log_kn = sysfs_get_dirent(tavi_kobj->sd, log_attr.attr.name);
	if (!tavi_log_kn) {
		ret = -ENOENT;
		goto err_put;
	}

	if (allow_inject) {
		ret = sysfs_create_file(tavi_kobj, &inject_attr.attr);
		if (ret)
			goto err_put_kn;
	}
	return 0;

err_put_kn:
	sysfs_put(tavi_log_kn);
err_put:
	kobject_put(tavi_kobj);
	return ret;
}

/*
 * Removing the directory does not wake a reader blocked in poll(), so notify
 * once the files are gone: the reader's poll() returns POLLERR|POLLPRI at
 * once from then on and its reads fail with ENODEV, telling it that the log
 * went away. kobject_del() has waited for every show() and store() to end, so
 * nothing reports any more; the reference taken at init keeps the node valid
 * for the notification.
 */
static void __exit tavi_log_exit(void)
{
	kobject_del(tavi_kobj);
	kernfs_notify(tavi_log_kn);
	sysfs_put(tavi_log_kn);
	kobject_put(tavi_kobj);
}

module_init(tavi_log_init);
module_exit(tavi_log_exit);

MODULE_DESCRIPTION("Incident records from drivers for the tavi listener");
MODULE_LICENSE("GPL");
