subdirs("/work/wt/daily/build")
